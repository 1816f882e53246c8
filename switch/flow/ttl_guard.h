// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <vector>

#include "switch/flow/action_plan.h"
#include "switch/flow/match.h"

namespace ofswitch {

// OpenFlow's dec_ttl forwards only packets whose TTL is 2 or more. The module
// subtracts 1 from any TTL, so the flow needs help:
struct TtlGuards {
  // The flow matches expired packets only: it drops, whatever else it says.
  bool flowDrops = false;
  // What must be dropped before the flow sees it. An IP header's TTL can only
  // be matched in the key of its own family, so a flow for any kind of packet
  // has two.
  std::vector<Match> matches;
};

TtlGuards ttlGuards(const Match& match, const ActionPlan& plan);

}  // namespace ofswitch
