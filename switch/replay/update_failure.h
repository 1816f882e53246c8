// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string>

#include "message.h"
#include "openflow.pb.h"

namespace ofswitch {

// How a person raises what an update can run out of, where they are.
struct MemorySettings {
  const char* memory;  // DPDK's
  const char* builds;  // of building classifiers
};

// Why an update of a table has failed. The module answers only that it did: its
// counters, of before and after, tell where, and the library's bookkeeping what
// a build took. To be asked before another build.
std::string updateFailure(const CommandResponse& response,
                          const quil::pb::OpenFlowGetStatsRespArg& before,
                          const quil::pb::OpenFlowGetStatsRespArg& after,
                          const MemorySettings& settings);

}  // namespace ofswitch
