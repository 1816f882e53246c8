// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "switch/flow/flow_printer.h"
#include "switch/flow/flow_reader.h"
#include "switch/live/flow_book.h"
#include "switch/live/flow_programmer.h"

namespace ofswitch {

// Takes updates as the module does: its store changes even when the build
// fails, what workers see changes only when it succeeds.
class FakeModule {
 public:
  using Rules = std::map<uint32_t, std::string>;  // serialized adds, by flowId
  using Tables = std::map<std::pair<uint32_t, int>, Rules>;

  ModuleDoor door() {
    return {[this](const TableUpdate& update, Sender) { return take(update); },
            [this] { gracePeriods++; }};
  }

  UpdateAnswer take(const TableUpdate& update) {
    if (fullAfter >= 0 && builds >= fullAfter) return {"no room", false};
    updates.push_back(update);
    const std::pair place(update.tableid(),
                          static_cast<int>(update.flowtype()));
    Rules& rules = store[place];
    for (const auto& add : update.adds()) {
      rules[add.flowid()] = add.SerializeAsString();
    }
    for (const auto& flow : update.deletes()) rules.erase(flow.flowid());
    if (failures.contains(builds++)) return {"no memory"};
    if (rules.empty()) {
      published.erase(place);
      store.erase(place);
    } else {
      published[place] = rules;
    }
    return {};
  }

  Tables store;
  Tables published;
  std::vector<TableUpdate> updates;
  std::set<int> failures;  // by number of the build
  int fullAfter = -1;      // after so many builds it takes no update any more
  int builds = 0;
  int gracePeriods = 0;
};

// A book, its module and its clock.
struct BookBench {
  std::map<uint32_t, uint64_t> counts;  // by counter
  CounterPool counters{1000, [this](uint32_t id) { return counts[id]; }};
  FlowBook book{{1, 2, 3}, &counters};
  FakeModule module;
  FlowProgrammer programmer{&book, module.door()};
  FlowBook::Time now{std::chrono::hours(1)};

  static std::vector<Flow> flows(const std::string& text) {
    std::istringstream in(text);
    FlowFile file = FlowReader({.allowTimeouts = true}).read(in, "test");
    if (!file.ok()) throw std::runtime_error(file.refusals[0].text());
    return file.flows;
  }

  pb::FlowChangeReply make(FlowBook::Plan plan) {
    pb::FlowChangeReply reply;
    programmer.make(std::move(plan), now, {}, &reply);
    return reply;
  }
  pb::FlowChangeReply add(const std::string& text, bool resetCounts = false) {
    return make(book.planAdd(flows(text), resetCounts));
  }
  pb::FlowChangeReply replace(const std::string& text) {
    return make(book.planReplace(flows(text), false));
  }
  pb::FlowChangeReply remove(const std::string& filter, bool strict = false) {
    return make(book.planDelete({parseFlowFilter(filter, strict)}));
  }

  // The operator's flows in order, in their normal form.
  std::vector<std::string> texts() const {
    std::vector<std::string> texts;
    for (const FlowBook::View& view : book.select({}, false)) {
      texts.push_back(flowText(view.installed->flow));
    }
    return texts;
  }

  FlowBook::View only(const std::string& filter) const {
    const auto views = book.select(parseFlowFilter(filter, false), false);
    if (views.size() != 1) throw std::runtime_error("not one: " + filter);
    return views[0];
  }

  // A packet of `bytes` bytes matches the rule.
  void hit(const InstalledRule& rule, uint64_t bytes = 100) {
    counts[rule.packetCounterId]++;
    counts[rule.byteCounterId] += bytes;
  }
};

}  // namespace ofswitch
