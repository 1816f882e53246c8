// SPDX-License-Identifier: BSD-3-Clause
#include "switch/flow/translator.h"

#include <algorithm>
#include <iterator>
#include <set>

#include "switch/flow/encode.h"
#include "switch/flow/refused.h"
#include "switch/flow/unconnected.h"

namespace ofswitch {
namespace {

// A flow and how the module will have it.
struct Prepared {
  const Flow* flow;
  PreparedFlow rules;
};

}  // namespace

// One call of add: changes the translator's books and gathers the messages.
class FlowTranslator::Batch {
 public:
  explicit Batch(FlowTranslator* translator) : t_(*translator) {}

  void add(Prepared prepared) {
    const Flow& flow = *prepared.flow;
    const auto [entry, isNew] =
        t_.byKey_.try_emplace(flowKey(flow), t_.nextOrder_);
    if (isNew) t_.nextOrder_++;
    InstalledFlow& installed = t_.installed_[entry->second];
    if (!isNew) {
      notes_.push_back({flow.file, flow.line,
                        fmt::format("replaces the flow of {}:{}, which has "
                                    "the same table, priority and match",
                                    installed.flow.file, installed.flow.line)});
      for (const InstalledRule& guard : installed.guards) {
        updates_.remove(flow.table, guard);
      }
    }
    const uint32_t flowId =
        isNew ? t_.ids_->takeFlowId() : installed.rule.flowId;
    installed = {
        flow, makeRule(flow.match, flowPriority(flow), flowId), {}, false};
    for (const Match& match : prepared.rules.guards) {
      installed.guards.push_back(
          makeRule(match, guardPriority(flow), t_.ids_->takeFlowId()));
      updates_.put(flow.table, installed.guards.back(), dropAction());
    }
    updates_.put(flow.table, installed.rule, std::move(prepared.rules.action));
  }

  void noteUnconnected(const Flow& flow) {
    std::ranges::copy(unconnectedOutputs(flow, t_.ports_),
                      std::back_inserter(notes_));
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
        updates_.remove(table, t_.installed_.at(miss->second).rule);
        t_.installed_.erase(miss->second);
        t_.missFlows_.erase(miss);
      }
    }
  }

  Translation finish() {
    Translation translation;
    translation.notes = std::move(notes_);
    translation.updates = updates_.take();
    return translation;
  }

 private:
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

  void addMissFlow(uint8_t table) {
    const Order order = t_.nextOrder_++;
    InstalledFlow& installed = t_.installed_[order];
    installed = {missFlow(table),
                 makeRule({}, kMissPriority, t_.ids_->takeFlowId()),
                 {},
                 true};
    updates_.put(table, installed.rule, dropAction());
    t_.missFlows_[table] = order;
  }

  FlowTranslator& t_;
  UpdateBatch updates_;
  std::vector<Diagnostic> notes_;
};

Translation FlowTranslator::add(const std::vector<Flow>& flows) {
  Translation refused;
  std::vector<Prepared> prepared;
  prepared.reserve(flows.size());
  for (const Flow& flow : flows) {
    try {
      prepared.push_back({&flow, prepareFlow(flow, ports_)});
    } catch (const Refused& reason) {
      refused.refusals.push_back({flow.file, flow.line, reason.what()});
    }
  }
  if (!refused.ok()) return refused;

  Batch batch(this);
  for (const Flow& flow : flows) batch.noteUnconnected(flow);
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
