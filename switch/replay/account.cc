// SPDX-License-Identifier: BSD-3-Clause
#include "switch/replay/account.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "switch/terminal/amounts.h"

namespace ofswitch {
namespace {

bool hasOutput(const quil::pb::OfActionFields& action) {
  return action.setoutputall() || action.setoutputflood() ||
         action.setoutputport() || action.setoutputinport() ||
         action.setoutputcontroller();
}

class Accountant {
 public:
  explicit Accountant(const ReplayCounts& counts) : counts_(counts) {}

  Account make() {
    for (const ReplayCounts::Port& port : counts_.ports) {
      account_.packetsIn += port.packetsIn;
      account_.packetsOut += port.packetsOut;
      if (port.sentTo != port.packetsOut) {
        disagree("port {}: {} packets sent, but {} arrived", port.port,
                 port.sentTo, port.packetsOut);
      }
    }
    account_.tables[0].entered = account_.packetsIn;
    for (const ReplayCounts::Rule& rule : counts_.rules) {
      addRule(rule);
    }
    for (size_t table = 0; table < account_.tables.size(); table++) {
      addTable(table);
    }
    closeWays();
    closeCopies();
    return std::move(account_);
  }

 private:
  template <class... Args>
  void disagree(fmt::format_string<Args...> text, Args&&... args) {
    account_.discrepancies.push_back(
        fmt::format(text, std::forward<Args>(args)...));
  }

  // A flow that goes to a table is not the end of a packet's way, whatever
  // else it does.
  void addRule(const ReplayCounts::Rule& rule) {
    Account::Table& table = account_.tables[rule.table];
    table.matched += rule.packets;
    if (rule.action.setoutputdrop()) {
      *causeOf(rule, &table) += rule.packets;
    }
    if (rule.action.gototbl()) {
      account_.tables[rule.nextTable].entered += rule.packets;
    } else if (hasOutput(rule.action)) {
      account_.sent += rule.packets;
    } else if (rule.action.setoutputdrop()) {
      *causeOf(rule, &account_) += rule.packets;
    } else {
      table.noOutput += rule.packets;
      account_.noOutput += rule.packets;
    }
    minOutputs_ += rule.packets * rule.minOutputs;
    maxOutputs_ += rule.packets * rule.maxOutputs;
  }

  // Where the drops of a flow are counted, in a table or in all.
  template <class Counts>
  static uint64_t* causeOf(const ReplayCounts::Rule& rule, Counts* counts) {
    switch (rule.kind) {
      case PolicyRule::Kind::kGuard:
        return &counts->ttlExpired;
      case PolicyRule::Kind::kEmptyTable:
        return &counts->emptyTable;
      case PolicyRule::Kind::kFlow:
        break;
    }
    return &counts->dropActions;
  }

  void addTable(size_t index) {
    Account::Table& table = account_.tables[index];
    const auto& stats = counts_.tables[index];
    uint64_t rest = table.entered;
    const auto take = [&](uint64_t packets, const char* what) {
      if (packets > rest) {
        disagree("table {}: {} packets {}, but only {} of {} are left", index,
                 packets, what, rest, table.entered);
        packets = rest;
      }
      rest -= packets;
      return packets;
    };
    take(table.matched, "matched");
    if (counts_.tableCountsExact || stats.batchdrops() > 0) {
      table.misses = take(stats.tablemisses(), "missed");
    } else {
      table.misses = std::exchange(rest, 0);
    }
    // A batch is counted as one whatever its size; its packets are what no flow
    // and no miss accounts for.
    if (stats.batchdrops() > 0) {
      table.batchDropPackets = std::exchange(rest, 0);
    }
    table.notCopied = rest;
    account_.misses += table.misses;
    account_.batchDropPackets += table.batchDropPackets;
    account_.notCopied += table.notCopied;

    if (counts_.tableCountsExact) {
      compare(index, "dropActions", stats.dropactions(),
              table.dropActions + table.ttlExpired + table.emptyTable);
      compare(index, "noOutputDrops", stats.nooutputdrops(), table.noOutput);
    }
  }

  void compare(size_t index, const char* name, uint64_t table, uint64_t flows) {
    if (table != flows) {
      disagree("table {}: {} is {}, but its flows say {}", index, name, table,
               flows);
    }
  }

  void closeWays() {
    const uint64_t ends = account_.sent + account_.dropActions +
                          account_.ttlExpired + account_.emptyTable +
                          account_.noOutput + account_.misses +
                          account_.batchDropPackets + account_.notCopied;
    if (ends != account_.packetsIn) {
      disagree("{} packets in, but {} of them are accounted for",
               account_.packetsIn, ends);
    }
    if (account_.notCopied > counts_.failedCopies) {
      disagree("{} did not reach the next table, but only {} failed",
               plural(account_.notCopied, "packet"),
               plural(counts_.failedCopies, "copy", "copies"));
    }
  }

  void closeCopies() {
    // The module drops each packet that it handles once its copies are made;
    // what it dropped beyond that were copies for gates that lead nowhere.
    uint64_t handled = 0;
    for (const Account::Table& table : account_.tables) {
      handled += table.matched + table.misses;
    }
    if (handled > counts_.dropped) {
      disagree("{} packets handled, but only {} ended", handled,
               counts_.dropped);
    } else {
      account_.unconnected = counts_.dropped - handled;
    }
    account_.outputs = account_.packetsOut + account_.unconnected;
    account_.outputsNotCopied =
        counts_.failedCopies -
        std::min(counts_.failedCopies, account_.notCopied);
    const uint64_t wanted = account_.outputs + account_.outputsNotCopied;
    if (wanted < minOutputs_ || wanted > maxOutputs_) {
      disagree("{} copies for output, but the flows ask for {} to {}", wanted,
               minOutputs_, maxOutputs_);
    }
    account_.buffersInUse = counts_.buffersInUse;
    if (account_.buffersInUse > 0) {
      disagree("{} packet buffers did not come back to the pool",
               account_.buffersInUse);
    }
  }

  const ReplayCounts& counts_;
  Account account_;
  uint64_t minOutputs_ = 0;
  uint64_t maxOutputs_ = 0;
};

}  // namespace

Account makeAccount(const ReplayCounts& counts) {
  return Accountant(counts).make();
}

}  // namespace ofswitch
