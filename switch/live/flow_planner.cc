// SPDX-License-Identifier: BSD-3-Clause
#include "switch/live/flow_planner.h"

#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <utility>

#include "switch/flow/encode.h"
#include "switch/flow/refused.h"
#include "switch/flow/unconnected.h"

namespace ofswitch {
namespace {

// Enough for a person; a file of a million flows may replace them all.
constexpr size_t kMaxNotes = 100;
constexpr size_t kMaxRefusals = 1000;

// A miss flow's key, which no flow of an operator can have.
std::string missKey(uint8_t table) { return fmt::format("miss {}", table); }

bool sameAction(const quil::pb::OfAction& a, const quil::pb::OfAction& b) {
  return a.SerializeAsString() == b.SerializeAsString();
}

const InstalledRule* ruleOf(const InstalledFlow* flow, uint32_t flowId) {
  if (flow == nullptr) return nullptr;
  if (flow->rule.flowId == flowId) return &flow->rule;
  const auto guard =
      std::ranges::find(flow->guards, flowId, &InstalledRule::flowId);
  return guard == flow->guards.end() ? nullptr : &*guard;
}

const InstalledRule* guardOf(const InstalledFlow* flow, const Match& match) {
  if (flow == nullptr) return nullptr;
  const auto guard =
      std::ranges::find(flow->guards, match, &InstalledRule::match);
  return guard == flow->guards.end() ? nullptr : &*guard;
}

}  // namespace

bool FlowBook::Planner::put(const std::vector<Flow>& flows, bool resetCounts,
                            bool restart) {
  std::vector<Wanted> wanted;
  if (!prepareAll(flows, &wanted)) return false;
  dropRepeated(&wanted);
  if (!enoughCounters(wanted)) return false;
  for (const Wanted& one : wanted) {
    noteUnconnected(*one.flow);
    putOne(one, resetCounts, restart);
    put_.insert(one.key);
  }
  return true;
}

bool FlowBook::Planner::prepareAll(const std::vector<Flow>& flows,
                                   std::vector<Wanted>* wanted) {
  wanted->reserve(flows.size());
  for (const Flow& flow : flows) {
    try {
      wanted->push_back(
          {&flow, flowKey(flow), prepareFlow(flow, book_.ports_)});
    } catch (const Refused& reason) {
      plan_.refusals.push_back({flow.file, flow.line, reason.what()});
      if (plan_.refusals.size() >= kMaxRefusals) break;
    }
  }
  return plan_.refusals.empty();
}

void FlowBook::Planner::dropRepeated(std::vector<Wanted>* wanted) {
  std::unordered_map<std::string, size_t> last;
  for (size_t i = 0; i < wanted->size(); i++) last[(*wanted)[i].key] = i;
  if (last.size() == wanted->size()) return;
  std::vector<Wanted> kept;
  for (size_t i = 0; i < wanted->size(); i++) {
    Wanted& one = (*wanted)[i];
    const Flow& winner = *(*wanted)[last[one.key]].flow;
    if (last[one.key] == i) {
      kept.push_back(std::move(one));
    } else if (plan_.notes.size() < kMaxNotes) {
      plan_.notes.push_back(
          {one.flow->file, one.flow->line,
           fmt::format("replaced by {}:{}, which has the same table, priority "
                       "and match",
                       winner.file, winner.line)});
    }
  }
  *wanted = std::move(kept);
}

void FlowBook::Planner::noteUnconnected(const Flow& flow) {
  for (Diagnostic& note : unconnectedOutputs(flow, book_.ports_)) {
    if (plan_.notes.size() < kMaxNotes) plan_.notes.push_back(std::move(note));
  }
}

bool FlowBook::Planner::enoughCounters(const std::vector<Wanted>& wanted) {
  size_t needed = 2 * kNumTables;  // for miss flows
  for (const Wanted& one : wanted) {
    needed += 2 * (1 + one.prepared.guards.size());
    if (needed > book_.counters_->available()) {
      plan_.refusals.push_back(
          {one.flow->file, one.flow->line,
           fmt::format("no counters are left for this flow: {} are free; "
                       "raise \"counters\" in the configuration",
                       book_.counters_->available())});
      return false;
    }
  }
  return true;
}

// Flows of one match and one action have the same guards.
bool FlowBook::Planner::sameRules(const InstalledFlow& before,
                                  const PreparedFlow& after) const {
  return sameAction(prepareFlow(before.flow, book_.ports_).action,
                    after.action);
}

// Under the identifier of the rule that it replaces, but with new counters:
// what the old one does until it is replaced must not count for the new one.
InstalledRule FlowBook::Planner::makeRule(const Match& match, uint32_t priority,
                                          const InstalledRule* before) {
  InstalledRule rule;
  rule.family = familyOf(match);
  rule.match = match;
  rule.priority = priority;
  rule.flowId = before != nullptr ? before->flowId : book_.flowIds_.take();
  rule.packetCounterId = book_.counters_->take();
  rule.byteCounterId = book_.counters_->take();
  return rule;
}

void FlowBook::Planner::putOne(const Wanted& wanted, bool resetCounts,
                               bool restart) {
  const auto entry = book_.entries_.find(wanted.key);
  Step step;
  step.key = wanted.key;
  step.end = endOf(*wanted.flow, wanted.prepared);
  step.keepCounts = !resetCounts;
  auto after = std::make_shared<InstalledFlow>();
  after->flow = *wanted.flow;
  if (entry != book_.entries_.end()) {
    step.before = entry->second.installed;
    const bool same = step.before->flow == *wanted.flow;
    plan_.unchanged += same;
    plan_.changed += !same;
    if (same && !resetCounts && !restart) return;
    if (!resetCounts && entry->second.end == step.end &&
        sameRules(*step.before, wanted.prepared)) {
      after->rule = step.before->rule;
      after->guards = step.before->guards;
    }
  } else {
    plan_.added++;
  }
  if (after->rule.flowId == 0) {
    const InstalledFlow* before = step.before.get();
    after->rule = makeRule(wanted.flow->match, flowPriority(*wanted.flow),
                           before != nullptr ? &before->rule : nullptr);
    for (const Match& match : wanted.prepared.guards) {
      after->guards.push_back(
          makeRule(match, guardPriority(*wanted.flow), guardOf(before, match)));
    }
  }
  step.after = std::move(after);
  plan_.steps.push_back(std::move(step));
}

void FlowBook::Planner::remove(const std::string& key, const Entry& entry) {
  Step step;
  step.key = key;
  step.before = entry.installed;
  plan_.steps.push_back(std::move(step));
  plan_.removed++;
}

void FlowBook::Planner::removeOthers() {
  for (const auto& [key, entry] : book_.entries_) {
    if (!entry.installed->isTableMiss && !put_.contains(key)) {
      remove(key, entry);
    }
  }
}

void FlowBook::Planner::addMissFlows() {
  bool reached[kNumTables] = {true};
  for (const Step& step : plan_.steps) {
    if (step.after != nullptr && step.end.kind == RuleEnd::Kind::kGoto) {
      reached[step.end.nextTable] = true;
    }
  }
  for (uint8_t table = 0; table < kNumTables; table++) {
    std::string key = missKey(table);
    if (!reached[table] || book_.entries_.contains(key)) continue;
    auto miss = std::make_shared<InstalledFlow>();
    miss->flow = missFlow(table);
    miss->rule = makeRule({}, kMissPriority, nullptr);
    miss->isTableMiss = true;
    plan_.steps.push_back({std::move(key),
                           nullptr,
                           std::move(miss),
                           {RuleEnd::Kind::kMissed},
                           false});
  }
}

void FlowBook::Planner::emit(UpdateBatch* batch, const InstalledFlow* from,
                             const InstalledFlow* to) const {
  if (from != nullptr) {
    const auto removeIfGone = [&](const InstalledRule& rule) {
      if (ruleOf(to, rule.flowId) == nullptr) {
        batch->remove(from->flow.table, rule);
      }
    };
    removeIfGone(from->rule);
    std::ranges::for_each(from->guards, removeIfGone);
  }
  if (to != nullptr) {
    const auto isNew = [&](const InstalledRule& rule) {
      const InstalledRule* old = ruleOf(from, rule.flowId);
      return old == nullptr || *old != rule;
    };
    for (const InstalledRule& guard : to->guards) {
      if (isNew(guard)) batch->put(to->flow.table, guard, dropAction());
    }
    if (isNew(to->rule)) {
      batch->put(to->flow.table, to->rule,
                 prepareFlow(to->flow, book_.ports_).action);
    }
  }
}

void FlowBook::Planner::order(std::vector<TableUpdate>* updates) {
  const bool adds = std::ranges::any_of(
      *updates, [](const TableUpdate& u) { return u.adds_size() > 0; });
  if (!adds) return;
  std::ranges::stable_sort(*updates, std::greater{},
                           [](const TableUpdate& u) { return u.tableid(); });
}

FlowBook::Plan FlowBook::Planner::finish() {
  UpdateBatch forward;
  UpdateBatch backward;
  for (const Step& step : plan_.steps) {
    emit(&forward, step.before.get(), step.after.get());
    emit(&backward, step.after.get(), step.before.get());
  }
  plan_.updates = forward.take();
  plan_.inverse = backward.take();
  order(&plan_.updates);
  return std::move(plan_);
}

}  // namespace ofswitch
