// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "switch/flow/diagnostic.h"
#include "switch/flow/flow.h"
#include "switch/flow/id_allocator.h"
#include "switch/flow/module_rules.h"
#include "switch/flow/update_batch.h"

namespace ofswitch {

// Every port that a flow enters by or sends to, ascending.
SwitchPorts portsNamedBy(const std::vector<Flow>& flows);

struct Translation {
  std::vector<TableUpdate> updates;  // by table, IPv4 before IPv6
  std::vector<Diagnostic> refusals;  // if any: no updates, nothing changed
  std::vector<Diagnostic> notes;     // replaced flows, missing ports

  bool ok() const { return refusals.empty(); }
};

// Turns flows into the module's update messages and remembers what is in
// force.
//
// Besides the flows and their guards the module needs miss flows. A table
// without any flow has no classifier and frees whole batches uncounted. A table
// that packets can reach (0, or the target of a goto_table) gets a drop flow
// while it has no other. In every other table a miss is the module's own: it
// drops the packet and counts it.
class FlowTranslator {
 public:
  // `ports` are ascending. `ids` must outlive the translator.
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
