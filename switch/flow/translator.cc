// SPDX-License-Identifier: BSD-3-Clause
#include "switch/flow/translator.h"

#include <algorithm>
#include <set>

#include "switch/flow/action_plan.h"
#include "switch/flow/encode.h"
#include "switch/flow/flow_printer.h"
#include "switch/flow/refused.h"
#include "switch/flow/ttl_guard.h"

namespace ofswitch {
namespace {

constexpr uint32_t kMissPriority = 1;

uint32_t flowPriority(const Flow& flow) { return 2u * flow.priority + 2; }
uint32_t guardPriority(const Flow& flow) { return 2u * flow.priority + 3; }

quil::pb::OfAction dropAction() {
  ActionPlan drop;
  drop.drop = true;
  return encodePlan(drop, {});
}

// A flow as the module will have it.
struct Prepared {
  const Flow* flow;
  quil::pb::OfAction action;
  std::vector<Match> guards;
};

Prepared prepare(const Flow& flow, const SwitchPorts& ports) {
  const ActionPlan plan = planActions(flow);
  TtlGuards guards = ttlGuards(flow.match, plan);
  return {&flow, guards.flowDrops ? dropAction() : encodePlan(plan, ports),
          std::move(guards.matches)};
}

std::string keyOf(const Flow& flow) {
  return fmt::format("{},{},{}", flow.table, flow.priority,
                     matchText(flow.match));
}

}  // namespace

// One call of add: changes the translator's books and gathers the messages.
class FlowTranslator::Batch {
 public:
  explicit Batch(FlowTranslator* translator) : t_(*translator) {}

  void add(Prepared prepared) {
    const Flow& flow = *prepared.flow;
    const auto [entry, isNew] =
        t_.byKey_.try_emplace(keyOf(flow), t_.nextOrder_);
    if (isNew) t_.nextOrder_++;
    InstalledFlow& installed = t_.installed_[entry->second];
    if (!isNew) {
      notes_.push_back({flow.file, flow.line,
                        fmt::format("replaces the flow of {}:{}, which has "
                                    "the same table, priority and match",
                                    installed.flow.file, installed.flow.line)});
      for (const InstalledRule& guard : installed.guards) {
        remove(flow.table, guard);
      }
    }
    const uint32_t flowId =
        isNew ? t_.ids_->takeFlowId() : installed.rule.flowId;
    installed = {
        flow, makeRule(flow.match, flowPriority(flow), flowId), {}, false};
    for (const Match& match : prepared.guards) {
      installed.guards.push_back(
          makeRule(match, guardPriority(flow), t_.ids_->takeFlowId()));
      put(flow.table, installed.guards.back(), dropAction());
    }
    put(flow.table, installed.rule, std::move(prepared.action));
  }

  // Gives each reachable empty table its miss flow, and takes it from those
  // that have flows now.
  void settleMissFlows() {
    std::set<uint8_t> populated;
    std::set<uint8_t> reachable = {0};
    for (const auto& [order, installed] : t_.installed_) {
      if (installed.isTableMiss) continue;
      populated.insert(installed.flow.table);
      for (const Action& action : installed.flow.actions) {
        if (action.kind == ActionKind::kGoto) {
          reachable.insert(static_cast<uint8_t>(action.value));
        }
      }
    }
    for (uint8_t table = 0; table < kNumTables; table++) {
      const auto miss = t_.missFlows_.find(table);
      const bool has = miss != t_.missFlows_.end();
      const bool wanted =
          reachable.contains(table) && !populated.contains(table);
      if (wanted && !has) addMissFlow(table);
      if (!wanted && has) {
        remove(table, t_.installed_.at(miss->second).rule);
        t_.installed_.erase(miss->second);
        t_.missFlows_.erase(miss);
      }
    }
  }

  Translation finish() {
    Translation translation;
    translation.notes = std::move(notes_);
    for (auto& [where, change] : changes_) {
      split(where.first, where.second, &change, &translation.updates);
    }
    return translation;
  }

 private:
  // What one table and family gains and loses, by flow identifier: a flow
  // that this batch replaces once more is sent once.
  struct Change {
    std::map<uint32_t, quil::pb::OpenFlowAddFlow> adds;
    std::set<uint32_t> deletes;
  };

  InstalledRule makeRule(const Match& match, uint32_t priority,
                         uint32_t flowId) {
    InstalledRule rule;
    rule.family = familyOf(match);
    rule.match = match;
    rule.priority = priority;
    rule.flowId = flowId;
    rule.packetCounterId = t_.ids_->takeCounter();
    rule.byteCounterId = t_.ids_->takeCounter();
    return rule;
  }

  void put(uint8_t table, const InstalledRule& rule,
           quil::pb::OfAction action) {
    quil::pb::OpenFlowAddFlow add;
    *add.mutable_match() = encodeMatch(rule.match);
    *add.mutable_action() = std::move(action);
    add.set_flowid(rule.flowId);
    add.set_priority(rule.priority);
    add.set_packetcounterid(rule.packetCounterId);
    add.set_bytecounterid(rule.byteCounterId);
    changes_[{table, rule.family}].adds[rule.flowId] = std::move(add);
  }

  void remove(uint8_t table, const InstalledRule& rule) {
    Change& change = changes_[{table, rule.family}];
    if (change.adds.erase(rule.flowId) == 0) {
      change.deletes.insert(rule.flowId);
    }
  }

  void addMissFlow(uint8_t table) {
    Flow flow;
    flow.table = table;
    flow.priority = 0;
    flow.actions.push_back({ActionKind::kDrop});
    const Order order = t_.nextOrder_++;
    InstalledFlow& installed = t_.installed_[order];
    installed = {std::move(flow),
                 makeRule({}, kMissPriority, t_.ids_->takeFlowId()),
                 {},
                 true};
    put(table, installed.rule, dropAction());
    t_.missFlows_[table] = order;
  }

  static void split(uint8_t table, quil::pb::OpenFlowType family,
                    Change* change, std::vector<TableUpdate>* updates) {
    const auto start = [&] {
      TableUpdate* update = &updates->emplace_back();
      update->set_tableid(table);
      update->set_flowtype(family);
      return update;
    };
    if (change->adds.empty() && change->deletes.empty()) return;
    TableUpdate* update = start();
    for (auto& [flowId, add] : change->adds) {
      if (update->adds_size() == kMaxAddsPerUpdate) update = start();
      *update->add_adds() = std::move(add);
    }
    for (const uint32_t flowId : change->deletes) {
      update->add_deletes()->set_flowid(flowId);
    }
  }

  FlowTranslator& t_;
  std::map<std::pair<uint8_t, quil::pb::OpenFlowType>, Change> changes_;
  std::vector<Diagnostic> notes_;
};

Translation FlowTranslator::add(const std::vector<Flow>& flows) {
  Translation refused;
  std::vector<Prepared> prepared;
  prepared.reserve(flows.size());
  for (const Flow& flow : flows) {
    try {
      prepared.push_back(prepare(flow, ports_));
    } catch (const Refused& reason) {
      refused.refusals.push_back({flow.file, flow.line, reason.what()});
    }
  }
  if (!refused.ok()) return refused;

  Batch batch(this);
  for (Prepared& flow : prepared) batch.add(std::move(flow));
  batch.settleMissFlows();
  return batch.finish();
}

std::vector<const InstalledFlow*> FlowTranslator::installed() const {
  std::vector<const InstalledFlow*> flows;
  flows.reserve(installed_.size());
  for (const auto& [order, flow] : installed_) flows.push_back(&flow);
  return flows;
}

SwitchPorts portsNamedBy(const std::vector<Flow>& flows) {
  std::set<uint16_t> ports;
  for (const Flow& flow : flows) {
    if (!flow.match.inPort.any()) {
      ports.insert(static_cast<uint16_t>(flow.match.inPort.value));
    }
    for (const Action& action : flow.actions) {
      if (action.kind == ActionKind::kOutput) {
        ports.insert(static_cast<uint16_t>(action.value));
      }
    }
  }
  return {ports.begin(), ports.end()};
}

}  // namespace ofswitch
