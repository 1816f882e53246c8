// SPDX-License-Identifier: BSD-3-Clause
//
// Reads what an operator asks for. Nothing here trusts its input: requests come
// from the control door.
#pragma once

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

FlowRequest readFlowRequest(const pb::FlowChange& change);

// The filter of a listing. Throws Refused.
FlowFilter readFlowFilter(const pb::FlowFilter& filter);

}  // namespace ofswitch
