// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "openflow.pb.h"
#include "switch/flow/module_rules.h"

namespace ofswitch {

// The module keeps an update's entries on the command thread's stack, which
// is sized for this many.
inline constexpr int kMaxAddsPerUpdate = 1'000'000;

// The argument of one "updateFlows" command.
using TableUpdate = quil::pb::OpenFlowUpdateFlowsArg;

// Gathers changes into one update a table and family: each update is one
// classifier build. Only updates that are too large for one are split.
class UpdateBatch {
 public:
  explicit UpdateBatch(int maxAdds = kMaxAddsPerUpdate) : maxAdds_(maxAdds) {}

  // Adds the rule, or changes the one with its identifier.
  void put(uint8_t table, const InstalledRule& rule, quil::pb::OfAction action);
  void remove(uint8_t table, const InstalledRule& rule);

  // By table, IPv4 before IPv6. The batch is empty afterwards.
  std::vector<TableUpdate> take();

 private:
  // What one table and family gains and loses, by flow identifier; each stands
  // on one side, wherever the last call put it. The module ignores the delete
  // of a rule that it does not have.
  struct Change {
    std::map<uint32_t, quil::pb::OpenFlowAddFlow> adds;
    std::set<uint32_t> deletes;
  };

  void split(uint8_t table, quil::pb::OpenFlowType family, Change* change,
             std::vector<TableUpdate>* updates) const;

  int maxAdds_;
  std::map<std::pair<uint8_t, quil::pb::OpenFlowType>, Change> changes_;
};

}  // namespace ofswitch
