// SPDX-License-Identifier: BSD-3-Clause
#include "switch/live/flow_book.h"

#include <algorithm>
#include <limits>
#include <numeric>
#include <tuple>

#include "switch/live/flow_planner.h"

namespace ofswitch {
namespace {

RuleEnd guardEnd() { return {RuleEnd::Kind::kTtlExpired}; }

// Whether `flow` has the rule with that identifier or packet counter.
template <class T>
bool hasRule(const InstalledFlow& flow, T InstalledRule::*member, T value) {
  return flow.rule.*member == value ||
         std::ranges::find(flow.guards, value, member) != flow.guards.end();
}

}  // namespace

FlowBook::FlowBook(SwitchPorts ports, CounterPool* counters)
    : ports_(std::move(ports)),
      counters_(counters),
      flowIds_(std::numeric_limits<uint32_t>::max()) {}

FlowBook::Plan FlowBook::planAdd(const std::vector<Flow>& flows,
                                 bool resetCounts) {
  Planner planner(this);
  if (!planner.put(flows, resetCounts, true)) {
    return std::move(planner.plan());
  }
  planner.addMissFlows();
  return planner.finish();
}

FlowBook::Plan FlowBook::planReplace(const std::vector<Flow>& flows,
                                     bool resetCounts) {
  Planner planner(this);
  if (!planner.put(flows, resetCounts, false)) {
    return std::move(planner.plan());
  }
  planner.removeOthers();
  planner.addMissFlows();
  return planner.finish();
}

FlowBook::Plan FlowBook::planDelete(const std::vector<FlowFilter>& filters) {
  Planner planner(this);
  // Strict filters name one flow a table, which is looked up: files of them
  // may be long.
  std::unordered_map<std::string, const Entry*> selected;
  std::vector<const FlowFilter*> loose;
  for (const FlowFilter& filter : filters) {
    if (!filter.strict) {
      loose.push_back(&filter);
      continue;
    }
    Flow flow;
    flow.priority = filter.priority;
    flow.match = filter.match;
    for (flow.table = 0; flow.table < kNumTables; flow.table++) {
      if (filter.table && *filter.table != flow.table) continue;
      const auto entry = entries_.find(flowKey(flow));
      if (entry != entries_.end() &&
          filter.selects(entry->second.installed->flow)) {
        selected.emplace(entry->first, &entry->second);
      }
    }
  }
  if (!loose.empty()) {
    for (const auto& [key, entry] : entries_) {
      const InstalledFlow& installed = *entry.installed;
      if (!installed.isTableMiss &&
          std::ranges::any_of(loose, [&](const FlowFilter* filter) {
            return filter->selects(installed.flow);
          })) {
        selected.emplace(key, &entry);
      }
    }
  }
  for (const auto& [key, entry] : selected) planner.remove(key, *entry);
  return planner.finish();
}

FlowBook::Plan FlowBook::planExpiry(Time now) {
  noteUse(now);
  Planner planner(this);
  for (const auto& [key, entry] : entries_) {
    const Flow& flow = entry.installed->flow;
    const auto reached = [&](uint16_t seconds, Time since) {
      return seconds != 0 && now - since >= std::chrono::seconds(seconds);
    };
    const bool hard = reached(flow.hardTimeout, entry.added);
    const bool idle = reached(flow.idleTimeout, entry.lastUsed);
    if (!hard && !idle) continue;
    planner.remove(key, entry);
    planner.plan().expiredHard += hard;
    planner.plan().expiredIdle += idle && !hard;
  }
  return planner.finish();
}

void FlowBook::commit(Plan plan, Time now) {
  for (Step& step : plan.steps) {
    auto entry = entries_.find(step.key);
    if (step.before != nullptr) {
      Entry& old = entry->second;
      retire(*step.before, old.end, step.after.get(),
             step.keepCounts ? old.carried : nullptr);
      count(*step.before, -1);
      if (step.after == nullptr) {
        entries_.erase(entry);
        continue;
      }
    }
    Entry& target = entries_[step.key];
    if (target.carried == nullptr || !step.keepCounts) {
      target.carried = std::make_shared<FlowCounts>();
      target.packetsSeen = 0;
    }
    count(*step.after, 1);
    if (step.before == nullptr) target.order = nextOrder_++;
    target.installed = std::move(step.after);
    target.end = step.end;
    target.added = now;
    target.lastUsed = now;
  }
}

void FlowBook::count(const InstalledFlow& flow, int sign) {
  const auto countRule = [&](const InstalledRule& rule) {
    numRules_[flow.flow.table][rule.family == quil::pb::OPENFLOW_TYPE_IPV6] +=
        sign;
  };
  countRule(flow.rule);
  std::ranges::for_each(flow.guards, countRule);
  if (!flow.isTableMiss) numFlows_[flow.flow.table] += sign;
}

void FlowBook::cancel(Plan plan) {
  for (const Step& step : plan.steps) {
    if (step.after != nullptr) {
      retire(*step.after, step.end, step.before.get(), nullptr);
    }
  }
}

// Takes the rules of `flow` out of use, except those that `stay` goes on with.
void FlowBook::retire(const InstalledFlow& flow, RuleEnd end,
                      const InstalledFlow* stay,
                      std::shared_ptr<FlowCounts> carryTo) {
  const auto retireRule = [&](const InstalledRule& rule, RuleEnd ruleEnd) {
    if (stay != nullptr &&
        hasRule(*stay, &InstalledRule::packetCounterId, rule.packetCounterId)) {
      return;
    }
    const bool freeFlowId =
        stay == nullptr || !hasRule(*stay, &InstalledRule::flowId, rule.flowId);
    retired_.push_back({flow.flow.table, ruleEnd, rule, freeFlowId, carryTo});
  };
  retireRule(flow.rule, end);
  for (const InstalledRule& guard : flow.guards) retireRule(guard, guardEnd());
}

void FlowBook::releaseRetired() {
  for (Retired& retired : retired_) {
    const InstalledRule& rule = retired.rule;
    FlowCounts counts{counters_->read(rule.packetCounterId),
                      counters_->read(rule.byteCounterId), 0};
    if (retired.end == guardEnd()) counts.ttlExpired = counts.packets;
    if (counts.packets != 0) {
      past_[{retired.table, retired.end}] += counts.packets;
    }
    if (retired.carryTo != nullptr) *retired.carryTo += counts;
    counters_->giveBack(rule.packetCounterId);
    counters_->giveBack(rule.byteCounterId);
    if (retired.freeFlowId) flowIds_.giveBack(rule.flowId);
  }
  retired_.clear();
}

FlowCounts FlowBook::countsOf(const Entry& entry) const {
  const auto read = [&](const InstalledRule& rule) {
    return FlowCounts{counters_->read(rule.packetCounterId),
                      counters_->read(rule.byteCounterId), 0};
  };
  FlowCounts counts = *entry.carried;
  FlowCounts own = read(entry.installed->rule);
  if (entry.end == guardEnd()) own.ttlExpired = own.packets;
  counts += own;
  for (const InstalledRule& rule : entry.installed->guards) {
    FlowCounts guard = read(rule);
    guard.ttlExpired = guard.packets;
    counts += guard;
  }
  return counts;
}

void FlowBook::noteUse(Time now) {
  for (auto& [key, entry] : entries_) {
    const uint64_t packets = countsOf(entry).packets;
    if (packets != entry.packetsSeen) {
      entry.packetsSeen = packets;
      entry.lastUsed = now;
    }
  }
}

FlowBook::View FlowBook::viewOf(const Entry& entry) const {
  return {entry.installed, entry.added, entry.lastUsed, countsOf(entry),
          entry.order};
}

std::vector<FlowBook::View> FlowBook::select(const FlowFilter& filter,
                                             bool withBuiltIn,
                                             size_t most) const {
  // Comparing these follows no pointers, which for many flows is most of it.
  struct Place {
    uint64_t precedence;
    uint64_t order;
    const Entry* entry;
    auto key() const { return std::tie(precedence, order); }
  };
  std::vector<Place> selected;
  for (const auto& [key, entry] : entries_) {
    const InstalledFlow& installed = *entry.installed;
    if (installed.isTableMiss && !withBuiltIn) continue;
    if (!filter.selects(installed.flow)) continue;
    const uint32_t lowest = std::numeric_limits<uint32_t>::max();
    selected.push_back({uint64_t{installed.flow.table} << 32 |
                            (lowest - installed.rule.priority),
                        entry.order, &entry});
  }
  if (most < selected.size()) {
    std::ranges::nth_element(selected,
                             selected.begin() + static_cast<ptrdiff_t>(most),
                             {}, &Place::key);
    selected.resize(most);
  }
  std::ranges::sort(selected, {}, &Place::key);
  std::vector<View> views;
  views.reserve(selected.size());
  for (const Place& place : selected) views.push_back(viewOf(*place.entry));
  return views;
}

void FlowBook::visit(uint8_t table, const Visitor& visitor) const {
  for (const auto& [key, entry] : entries_) {
    if (entry.installed->flow.table != table) continue;
    visitor(entry.installed, entry.order);
  }
}

template <class Predicate>
std::optional<FlowBook::View> FlowBook::findRule(Predicate matches) const {
  for (const auto& [key, entry] : entries_) {
    if (matches(*entry.installed)) return viewOf(entry);
  }
  return std::nullopt;
}

std::optional<FlowBook::View> FlowBook::findByFlowId(uint32_t flowId) const {
  return findRule([&](const InstalledFlow& flow) {
    return hasRule(flow, &InstalledRule::flowId, flowId);
  });
}

std::optional<FlowBook::View> FlowBook::findByPacketCounter(
    uint32_t counterId) const {
  return findRule([&](const InstalledFlow& flow) {
    return hasRule(flow, &InstalledRule::packetCounterId, counterId);
  });
}

size_t FlowBook::numFlows() const {
  return std::accumulate(std::begin(numFlows_), std::end(numFlows_), size_t{0});
}

FlowBook::Matched FlowBook::matched() const {
  Matched matched = past_;
  for (const auto& [key, entry] : entries_) {
    const uint8_t table = entry.installed->flow.table;
    matched[{table, entry.end}] +=
        counters_->read(entry.installed->rule.packetCounterId);
    for (const InstalledRule& guard : entry.installed->guards) {
      matched[{table, guardEnd()}] += counters_->read(guard.packetCounterId);
    }
  }
  return matched;
}

}  // namespace ofswitch
