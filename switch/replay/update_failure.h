// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string>

#include "message.h"
#include "openflow.pb.h"
#include "utils/acl_build_memory.h"

namespace ofswitch {

// How a person raises what an update can run out of, where they are.
struct MemorySettings {
  const char* memory;  // DPDK's
  const char* builds;  // of building classifiers
};

// An update of a table that has failed. The module answers only that it did:
// its counters tell where, the bookkeeping what the last build took, and DPDK's
// log why.
struct FailedUpdate {
  CommandResponse response;
  quil::pb::OpenFlowGetStatsRespArg before;
  quil::pb::OpenFlowGetStatsRespArg after;
  Dpdk::AclBuildMemory build;
  std::string log;  // in one line; may be empty
};

// Why it has failed, and what would help.
std::string updateFailure(const FailedUpdate& update,
                          const MemorySettings& settings);

}  // namespace ofswitch
