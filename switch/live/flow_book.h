// SPDX-License-Identifier: BSD-3-Clause
//
// The operator's flows, as they are in force.
//
// A change goes in steps: it is planned (numbers are taken, messages made,
// nothing else), sent to the module, and then committed or cancelled. Numbers
// of rules that are gone stay out of use until a grace period has passed,
// because workers may still count for them; then `releaseRetired` adds what
// they counted last to the account and lends them anew.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "switch/flow/diagnostic.h"
#include "switch/flow/module_rules.h"
#include "switch/flow/update_batch.h"
#include "switch/live/counter_pool.h"
#include "switch/live/flow_filter.h"
#include "switch/live/id_pool.h"
#include "switch/live/rule_end.h"

namespace ofswitch {

struct FlowCounts {
  uint64_t packets = 0;
  uint64_t bytes = 0;
  uint64_t ttlExpired = 0;  // of the packets

  FlowCounts& operator+=(const FlowCounts& more) {
    packets += more.packets;
    bytes += more.bytes;
    ttlExpired += more.ttlExpired;
    return *this;
  }
};

// Used by one thread at a time.
class FlowBook {
 public:
  using Clock = std::chrono::steady_clock;
  using Time = Clock::time_point;

  // `ports` are what "all" and "flood" stand for. `counters` must outlive the
  // book.
  FlowBook(SwitchPorts ports, CounterPool* counters);

  // One flow that comes, goes or changes.
  struct Step {
    std::string key;
    std::shared_ptr<const InstalledFlow> before;  // null: it comes
    std::shared_ptr<const InstalledFlow> after;   // null: it goes
    RuleEnd end;                                  // of `after`
    bool keepCounts = false;
  };

  // A change that can be made. Exactly one of commit and cancel must follow.
  struct Plan {
    // In the order in which they are to be published, one a table and family:
    // later tables first if anything is added, so that a packet that is sent
    // to a table finds the flows that it was sent for; otherwise earlier ones
    // first, so that no packet is sent to flows that are gone.
    std::vector<TableUpdate> updates;
    // What undoes them, in no particular order.
    std::vector<TableUpdate> inverse;

    uint64_t added = 0;
    uint64_t changed = 0;
    uint64_t removed = 0;
    uint64_t unchanged = 0;
    uint64_t expiredIdle = 0;  // of the removed
    uint64_t expiredHard = 0;
    std::vector<Diagnostic> refusals;  // if any: nothing else is set
    std::vector<Diagnostic> notes;

    std::vector<Step> steps;
  };

  // A flow with the table, priority and match of one in force replaces it.
  Plan planAdd(const std::vector<Flow>& flows, bool resetCounts);
  // Makes `flows` all there is. What is in force exactly so is left alone.
  Plan planReplace(const std::vector<Flow>& flows, bool resetCounts);
  // Removes what one of the filters selects.
  Plan planDelete(const std::vector<FlowFilter>& filters);
  // Removes what has not been used for its idle timeout or has been there for
  // its hard timeout.
  Plan planExpiry(Time now);

  void commit(Plan plan, Time now);
  void cancel(Plan plan);

  // After a grace period since the last commit or cancel.
  void releaseRetired();

  // Looks which flows have counted packets since the last time.
  void noteUse(Time now);

  // One flow at one moment.
  struct View {
    std::shared_ptr<const InstalledFlow> installed;
    Time added;
    Time lastUsed;
    FlowCounts counts;
    uint64_t order = 0;  // grows from installation to installation
  };

  // By table, then from high to low priority, then as they were installed; not
  // more than `most`.
  std::vector<View> select(
      const FlowFilter& filter, bool withBuiltIn,
      size_t most = std::numeric_limits<size_t>::max()) const;
  // Without order or counts: `order` is that of View.
  using Visitor = std::function<void(
      const std::shared_ptr<const InstalledFlow>& flow, uint64_t order)>;
  void visit(uint8_t table, const Visitor& visitor) const;

  std::optional<View> findByFlowId(uint32_t flowId) const;
  std::optional<View> findByPacketCounter(uint32_t counterId) const;

  // The operator's flows of one table, or of all.
  size_t numFlows(uint8_t table) const { return numFlows_[table]; }
  size_t numFlows() const;
  // Rules of the module in one table and family, for guards and misses, too.
  size_t numRules(uint8_t table, bool ipv6) const {
    return numRules_[table][ipv6];
  }

  // All packets that rules have matched since the start, by table and end,
  // those of rules that are gone included.
  using Matched = std::map<std::pair<uint8_t, RuleEnd>, uint64_t>;
  Matched matched() const;

 private:
  struct Entry {
    std::shared_ptr<const InstalledFlow> installed;
    RuleEnd end;
    Time added;
    Time lastUsed;
    uint64_t packetsSeen = 0;  // when `lastUsed` was looked after
    uint64_t order = 0;
    // What earlier rules of this flow have counted.
    std::shared_ptr<FlowCounts> carried;
  };
  // A rule that is gone.
  struct Retired {
    uint8_t table = 0;
    RuleEnd end;
    InstalledRule rule;
    bool freeFlowId = false;
    std::shared_ptr<FlowCounts> carryTo;
  };
  class Planner;

  void count(const InstalledFlow& flow, int sign);
  FlowCounts countsOf(const Entry& entry) const;
  View viewOf(const Entry& entry) const;
  template <class Predicate>
  std::optional<View> findRule(Predicate matches) const;
  void retire(const InstalledFlow& flow, RuleEnd end, const InstalledFlow* stay,
              std::shared_ptr<FlowCounts> carryTo);

  SwitchPorts ports_;
  CounterPool* counters_;
  IdPool flowIds_;
  std::unordered_map<std::string, Entry> entries_;
  size_t numFlows_[kNumTables] = {};
  size_t numRules_[kNumTables][2] = {};
  std::vector<Retired> retired_;
  Matched past_;
  uint64_t nextOrder_ = 0;
};

}  // namespace ofswitch
