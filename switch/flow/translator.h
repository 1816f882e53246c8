// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "openflow.pb.h"
#include "switch/flow/diagnostic.h"
#include "switch/flow/flow.h"
#include "switch/flow/id_allocator.h"

namespace ofswitch {

// The module keeps an update's entries on the command thread's stack, which
// is sized for this many.
inline constexpr int kMaxAddsPerUpdate = 1'000'000;

// The ports that `all` and `flood` reach, ascending, without gate 0.
using SwitchPorts = std::vector<uint16_t>;

// Every port that a flow enters by or sends to, ascending.
SwitchPorts portsNamedBy(const std::vector<Flow>& flows);

// One flow of the module.
struct InstalledRule {
  quil::pb::OpenFlowType family = quil::pb::OPENFLOW_TYPE_IPV4;
  Match match;
  uint32_t priority = 0;  // the module's
  uint32_t flowId = 0;
  uint32_t packetCounterId = 0;
  uint32_t byteCounterId = 0;
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

// The argument of one "updateFlows" command.
using TableUpdate = quil::pb::OpenFlowUpdateFlowsArg;

struct Translation {
  std::vector<TableUpdate> updates;  // by table, IPv4 before IPv6
  std::vector<Diagnostic> refusals;  // if any: no updates, nothing changed
  std::vector<Diagnostic> notes;     // flows that replaced earlier ones

  bool ok() const { return refusals.empty(); }
};

// Turns flows into the module's update messages and remembers what is in
// force. OpenFlow priority p becomes 2p + 2 in the module, which leaves
// 2p + 3 for the guards of that flow and 1 for a table's miss flow.
//
// Besides the flows themselves the module needs:
//  - guards. The module decrements a TTL of 0 or 1 like any other; a flow
//    with dec_ttl gets a rule just above it that drops such packets.
//  - miss flows. A table without any flow has no classifier and frees whole
//    batches uncounted. A table that packets can reach (0, or the target of a
//    goto_table) gets a drop flow while it has no other. In every other table
//    a miss is the module's own: it drops the packet and counts it.
class FlowTranslator {
 public:
  // `ids` must outlive the translator.
  FlowTranslator(SwitchPorts ports, IdAllocator* ids)
      : ports_(std::move(ports)), ids_(ids) {}

  // Adds flows, usually those of one file. A flow with the table, priority
  // and match of an earlier one replaces it, as "ovs-ofctl add-flow" does.
  Translation add(const std::vector<Flow>& flows);

  // Everything in force, in the order of installation, until the next add.
  std::vector<const InstalledFlow*> installed() const;

 private:
  class Batch;
  using Order = uint64_t;

  SwitchPorts ports_;
  IdAllocator* ids_;
  std::map<Order, InstalledFlow> installed_;
  std::unordered_map<std::string, Order> byKey_;
  std::map<uint8_t, Order> missFlows_;  // by table
  Order nextOrder_ = 0;
};

}  // namespace ofswitch
