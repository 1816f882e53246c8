// SPDX-License-Identifier: BSD-3-Clause
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <iterator>
#include <vector>

#include "switch/replay/report.h"

namespace ofswitch {
namespace {

// More flows than anyone reads: only those that matched are printed.
constexpr size_t kManyFlows = 1000;

// Numbers to the right, words to the left, columns as wide as they need.
class Table {
 public:
  explicit Table(std::vector<std::string> head) { rows_.push_back(head); }

  void add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }

  // The last `words` columns hold words.
  std::string text(size_t words = 0) const {
    std::vector<size_t> widths(rows_[0].size());
    for (const auto& row : rows_) {
      for (size_t i = 0; i < row.size(); i++) {
        widths[i] = std::max(widths[i], row[i].size());
      }
    }
    std::string text;
    for (const auto& row : rows_) {
      std::string line = " ";
      for (size_t i = 0; i < row.size(); i++) {
        if (i + words < row.size()) {
          line += fmt::format(" {:>{}}", row[i], widths[i]);
        } else {
          line += fmt::format("  {:<{}}", row[i], widths[i]);
        }
      }
      line.erase(line.find_last_not_of(' ') + 1);
      text += line + "\n";
    }
    return text;
  }

 private:
  std::vector<std::vector<std::string>> rows_;
};

std::string number(uint64_t n) { return std::to_string(n); }

// What a command list asked for before any packet came: flows and failures.
std::string replies(const ReplayCounts& counts) {
  if (counts.replies.empty()) {
    return "";
  }
  Table table({"IPv4", "IPv6", "failed updates", "asked for by"});
  for (const ReplayCounts::Reply& reply : counts.replies) {
    table.add({number(reply.stats.numflows()),
               number(reply.stats.numipv6flows()),
               number(reply.stats.updatefailures()), reply.where});
  }
  return "Replies to getStats\n" + table.text(1) + "\n";
}

std::string tables(const ReplayCounts& counts, const Account& account) {
  Table table({"table", "IPv4", "IPv6", "packets", "matched", "missed",
               "dropped", "TTL", "empty", "no output", "failed"});
  for (size_t i = 0; i < account.tables.size(); i++) {
    const Account::Table& one = account.tables[i];
    const auto& stats = counts.tables[i];
    if (stats.numflows() + stats.numipv6flows() + one.entered == 0) {
      continue;
    }
    table.add({number(i), number(stats.numflows()),
               number(stats.numipv6flows()), number(one.entered),
               number(one.matched), number(one.misses), number(one.dropActions),
               number(one.ttlExpired), number(one.emptyTable),
               number(one.noOutput), number(one.batchDropPackets)});
  }
  return "Tables: flows of each family, packets, and why packets ended "
         "there\n" +
         table.text();
}

std::string flows(const Policy& policy, const ReplayCounts& counts) {
  Table table({"packets", "bytes", "flow"});
  const bool many = policy.flows.size() > kManyFlows;
  size_t left = 0;
  for (const PolicyFlow& flow : policy.flows) {
    uint64_t packets = 0, bytes = 0;
    for (const size_t rule : flow.rules) {
      packets += counts.rules[rule].packets;
      bytes += counts.rules[rule].bytes;
    }
    if (many && packets == 0) {
      left++;
    } else {
      table.add({number(packets), number(bytes), flow.text});
    }
  }
  std::string text = "Flows\n" + table.text(1);
  if (left > 0) {
    text += fmt::format("  and {} flows that matched nothing\n", left);
  }
  return text;
}

std::string ports(const ReplayCounts& counts) {
  Table table({"port", "packets in", "bytes in", "packets out", "bytes out",
               "written to"});
  for (const ReplayCounts::Port& port : counts.ports) {
    table.add({port.port == 0 ? "controller" : number(port.port),
               number(port.packetsIn), number(port.bytesIn),
               number(port.packetsOut), number(port.bytesOut), port.file});
  }
  return "Ports\n" + table.text(1);
}

// "12 sent + 3 dropped", without what is 0.
std::string sum(const std::vector<std::pair<uint64_t, std::string>>& terms) {
  std::vector<std::string> words;
  for (const auto& [n, what] : terms) {
    if (n > 0) {
      words.push_back(fmt::format("{} {}", n, what));
    }
  }
  return words.empty() ? "0" : fmt::format("{}", fmt::join(words, " + "));
}

std::string accounting(const ReplayCounts& counts, const Account& account) {
  std::vector<std::pair<uint64_t, std::string>> copies;
  for (const ReplayCounts::Port& port : counts.ports) {
    copies.emplace_back(port.packetsOut,
                        port.port == 0 ? "to the controller"
                                       : fmt::format("on port {}", port.port));
  }
  copies.emplace_back(account.unconnected, "for gates without a connection");

  std::string text = "Accounting\n";
  text +=
      fmt::format("  {} packets in = {}\n", account.packetsIn,
                  sum({{account.sent, "output"},
                       {account.dropActions, "dropped by a flow"},
                       {account.ttlExpired, "with their TTL expired"},
                       {account.emptyTable, "in a table without flows"},
                       {account.noOutput, "without an output"},
                       {account.misses, "table misses"},
                       {account.batchDropPackets, "freed with a failed batch"},
                       {account.notCopied, "stopped by a dry packet pool"}}));
  text += fmt::format("  {} copies out = {}\n", account.outputs, sum(copies));
  if (account.outputsNotCopied > 0) {
    text += fmt::format("  {} copies were not made: the packet pool was dry\n",
                        account.outputsNotCopied);
  }
  if (account.closes()) {
    text += "  nothing lost\n";
  }
  for (const std::string& discrepancy : account.discrepancies) {
    text += fmt::format("  DOES NOT ADD UP: {}\n", discrepancy);
  }
  return text;
}

}  // namespace

std::string textReport(const Policy& policy, const ReplayCounts& counts,
                       const Account& account) {
  return replies(counts) + tables(counts, account) + "\n" +
         flows(policy, counts) + "\n" + ports(counts) + "\n" +
         accounting(counts, account);
}

}  // namespace ofswitch
