// SPDX-License-Identifier: BSD-3-Clause
//
// Frames for the flow sets of flow_sets.h, the same at every run.
#pragma once

#include <vector>

#include "bench/bench_rig.h"
#include "openflow.pb.h"

namespace bench {

// Ten frames a flow, in an order that a cache of the last flows gains nothing
// from. Each is a packet over IPv4 that its flow matches; what the flow leaves
// open is random, so that it may match others as well.
std::vector<FrameBytes> framesOf(
    const std::vector<quil::pb::OpenFlowAddFlow>& flows);

}  // namespace bench
