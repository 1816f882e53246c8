// SPDX-License-Identifier: BSD-3-Clause
//
// What stands in the module for a flow of the switch.
//
// OpenFlow priority p becomes 2p + 2 in the module, which leaves 2p + 3 for
// the guards of that flow and 1 for a table's miss flow. Guards: the module
// decrements a TTL of 0 or 1 like any other; a flow with dec_ttl gets a rule
// just above it that drops such packets.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "openflow.pb.h"
#include "switch/flow/flow.h"

namespace ofswitch {

// The ports that `all` and `flood` reach, ascending, without gate 0.
using SwitchPorts = std::vector<uint16_t>;

// One flow of the module.
struct InstalledRule {
  quil::pb::OpenFlowType family = quil::pb::OPENFLOW_TYPE_IPV4;
  Match match;
  uint32_t priority = 0;  // the module's
  uint32_t flowId = 0;
  uint32_t packetCounterId = 0;
  uint32_t byteCounterId = 0;

  bool operator==(const InstalledRule&) const = default;
};

// A flow of the switch and the rules that stand for it in the module. A
// packet that a guard drops has matched the flow, and belongs to its counts;
// what stopped it is its TTL.
struct InstalledFlow {
  Flow flow;
  InstalledRule rule;
  std::vector<InstalledRule> guards;
  // Added by the switch: drops what enters a table that has no flow.
  bool isTableMiss = false;
};

inline constexpr uint32_t kMissPriority = 1;
inline uint32_t flowPriority(const Flow& flow) {
  return 2u * flow.priority + 2;
}
inline uint32_t guardPriority(const Flow& flow) {
  return 2u * flow.priority + 3;
}

quil::pb::OfAction dropAction();

// The flow that a table gets for packets that match nothing else.
Flow missFlow(uint8_t table);

// A flow in the module's terms, before it has numbers there.
struct PreparedFlow {
  quil::pb::OfAction action;
  std::vector<Match> guards;
};

// Throws Refused.
PreparedFlow prepareFlow(const Flow& flow, const SwitchPorts& ports);

// Equal for flows of which there can be only one in force: those with the
// same table, priority and match.
std::string flowKey(const Flow& flow);

}  // namespace ofswitch
