// SPDX-License-Identifier: BSD-3-Clause
#include "switch/flow/update_batch.h"

#include "switch/flow/encode.h"

namespace ofswitch {

void UpdateBatch::put(uint8_t table, const InstalledRule& rule,
                      quil::pb::OfAction action) {
  quil::pb::OpenFlowAddFlow add;
  *add.mutable_match() = encodeMatch(rule.match);
  *add.mutable_action() = std::move(action);
  add.set_flowid(rule.flowId);
  add.set_priority(rule.priority);
  add.set_packetcounterid(rule.packetCounterId);
  add.set_bytecounterid(rule.byteCounterId);
  Change& change = changes_[{table, rule.family}];
  change.adds[rule.flowId] = std::move(add);
  change.deletes.erase(rule.flowId);
}

void UpdateBatch::remove(uint8_t table, const InstalledRule& rule) {
  Change& change = changes_[{table, rule.family}];
  change.adds.erase(rule.flowId);
  change.deletes.insert(rule.flowId);
}

std::vector<TableUpdate> UpdateBatch::take() {
  std::vector<TableUpdate> updates;
  for (auto& [where, change] : changes_) {
    split(where.first, where.second, &change, &updates);
  }
  changes_.clear();
  return updates;
}

void UpdateBatch::split(uint8_t table, quil::pb::OpenFlowType family,
                        Change* change,
                        std::vector<TableUpdate>* updates) const {
  const auto start = [&] {
    TableUpdate* update = &updates->emplace_back();
    update->set_tableid(table);
    update->set_flowtype(family);
    return update;
  };
  TableUpdate* update = start();
  for (auto& [flowId, add] : change->adds) {
    if (update->adds_size() == maxAdds_) update = start();
    *update->add_adds() = std::move(add);
  }
  for (const uint32_t flowId : change->deletes) {
    update->add_deletes()->set_flowid(flowId);
  }
}

}  // namespace ofswitch
