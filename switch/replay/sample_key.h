// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

#include "openflow.pb.h"

namespace ofswitch {

// The key of some packet that `flow` matches, as the module's classifiers of
// the family read keys: what the match leaves open is random.
std::vector<uint8_t> sampleKey(const quil::pb::OpenFlowAddFlow& flow, bool ipv6,
                               std::mt19937* random);

}  // namespace ofswitch
