// SPDX-License-Identifier: BSD-3-Clause
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <vector>

#include "switch/replay/report.h"
#include "switch/terminal/amounts.h"
#include "switch/terminal/text_table.h"

namespace ofswitch {
namespace {

// More flows than anyone reads: only those that matched are printed.
constexpr size_t kManyFlows = 1000;

std::string number(uint64_t n) { return std::to_string(n); }

// What a command list asked for before any packet came: flows and failures.
std::string replies(const ReplayCounts& counts) {
  if (counts.replies.empty()) {
    return "";
  }
  TextTable table({"IPv4", "IPv6", "failed updates", "asked for by"}, 1);
  for (const ReplayCounts::Reply& reply : counts.replies) {
    table.add({number(reply.stats.numflows()),
               number(reply.stats.numipv6flows()),
               number(reply.stats.updatefailures()), reply.where});
  }
  return "Replies to getStats\n" + table.text() + "\n";
}

std::string tables(const ReplayCounts& counts, const Account& account) {
  TextTable table({"table", "IPv4", "IPv6", "packets", "matched", "missed",
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
  TextTable table({"packets", "bytes", "flow"}, 1);
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
  std::string text = "Flows\n" + table.text();
  if (left > 0) {
    text +=
        fmt::format("  and {} that matched nothing\n", plural(left, "flow"));
  }
  return text;
}

std::string ports(const ReplayCounts& counts) {
  TextTable table({"port", "packets in", "bytes in", "packets out", "bytes out",
                   "written to"},
                  1);
  for (const ReplayCounts::Port& port : counts.ports) {
    table.add({port.port == 0 ? "controller" : number(port.port),
               number(port.packetsIn), number(port.bytesIn),
               number(port.packetsOut), number(port.bytesOut), port.file});
  }
  return "Ports\n" + table.text();
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
      fmt::format("  {} in = {}\n", plural(account.packetsIn, "packet"),
                  sum({{account.sent, "output"},
                       {account.dropActions, "dropped by a flow"},
                       {account.ttlExpired, "with their TTL expired"},
                       {account.emptyTable, "in a table without flows"},
                       {account.noOutput, "without an output"},
                       {account.misses,
                        account.misses == 1 ? "table miss" : "table misses"},
                       {account.batchDropPackets, "freed with a failed batch"},
                       {account.notCopied, "stopped by a dry packet pool"}}));
  text += fmt::format("  {} out = {}\n",
                      plural(account.outputs, "copy", "copies"), sum(copies));
  if (account.outputsNotCopied > 0) {
    const uint64_t count = account.outputsNotCopied;
    text += fmt::format("  {} not made: the packet pool was dry\n",
                        plural(count, "copy was", "copies were"));
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
