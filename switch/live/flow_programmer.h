// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>

#include "switch.pb.h"
#include "switch/live/flow_book.h"
#include "switch/live/retry.h"
#include "switch/replay/module_commands.h"

namespace ofswitch {

// How the switch reaches its module. A test puts its own in here.
struct ModuleDoor {
  std::function<UpdateAnswer(const TableUpdate&, Sender)> update;
  // Returns when no worker can be using what it used at the call.
  std::function<void()> gracePeriod;
};

// The builds of one table and family.
struct BuildHistory {
  uint64_t builds = 0;
  uint64_t failures = 0;
  std::chrono::nanoseconds last{0};
  std::chrono::nanoseconds longest{0};
  std::chrono::nanoseconds total{0};
};

// Makes planned changes: sends their updates one after the other and commits
// the plan to the book, or, when a build fails, sends the inverse of what was
// sent and cancels. On the command thread.
class FlowProgrammer {
 public:
  using Progress = std::function<void(const pb::FlowProgress&)>;

  // `book` must outlive the programmer.
  FlowProgrammer(FlowBook* book, ModuleDoor door);

  // Fills the reply; returns after a grace period.
  void make(FlowBook::Plan plan, FlowBook::Time now, const Progress& progress,
            pb::FlowChangeReply* reply);

  // Does what an inverse update could not: its table still matches by flows
  // that were taken back. A build that fails may keep memory for good, so each
  // is waited for twice as long as the one before, a minute at most; one that
  // there is no room for is not tried. Answers whether nothing is left to mend.
  bool mend(FlowBook::Time now);

  const BuildHistory& history(uint8_t table, bool ipv6) const {
    return history_[table][ipv6];
  }

 private:
  using Place = std::pair<uint8_t, bool>;  // table, whether IPv6

  // An inverse that was not made.
  struct Stale {
    TableUpdate missing;  // what the module's flows lack of it; may be nothing
    Retry retry;
  };

  UpdateAnswer send(const TableUpdate& update, Sender sender,
                    pb::FlowChangeReply* reply);
  std::string undo(const FlowBook::Plan& plan, size_t sent, FlowBook::Time now,
                   pb::FlowChangeReply* reply);

  FlowBook& book_;
  ModuleDoor door_;
  std::array<std::array<BuildHistory, 2>, kNumTables> history_;
  std::map<Place, Stale> stale_;
};

}  // namespace ofswitch
