// SPDX-License-Identifier: BSD-3-Clause
//
// Reads what an operator asks for. Nothing here trusts its input: requests come
// from the control door.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "switch.pb.h"
#include "switch/flow/diagnostic.h"
#include "switch/flow/flow.h"
#include "switch/live/flow_filter.h"

namespace ofswitch {

// A flow change in our own terms. With refusals it must not be made.
struct FlowRequest {
  std::vector<Flow> flows;          // of an addition or replacement
  std::vector<FlowFilter> filters;  // of a deletion
  std::vector<Diagnostic> refusals;

  bool ok() const { return refusals.empty(); }
};

// Far beyond what people write, and little enough that a request that is as
// long as can be is refused at once and with little memory.
inline constexpr size_t kMostFlows = 1'000'000;

FlowRequest readFlowRequest(const pb::FlowChange& change,
                            size_t mostFlows = kMostFlows);

// The filter of a listing. Throws Refused.
FlowFilter readFlowFilter(const pb::FlowFilter& filter);

}  // namespace ofswitch
