// SPDX-License-Identifier: BSD-3-Clause
//
// The module's messages for what the flow text says.
#pragma once

#include <span>

#include "openflow.pb.h"
#include "switch/flow/action_plan.h"
#include "switch/flow/match.h"

namespace ofswitch {

// The family whose key holds the fields of the match. A match without L3
// fields sees packets of both families wherever it lives.
quil::pb::OpenFlowType familyOf(const Match& match);

quil::pb::OfMatch encodeMatch(const Match& match);

// The module's `ogate` list holds this many.
inline constexpr size_t kMaxOutputGates = 64;

// `ports` are what "all" and "flood" stand for. Throws Refused when the plan
// needs more gates than the module's list holds.
quil::pb::OfAction encodePlan(const ActionPlan& plan,
                              std::span<const uint16_t> ports);

}  // namespace ofswitch
