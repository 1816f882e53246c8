// SPDX-License-Identifier: BSD-3-Clause
#include "switch/live/flow_report.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>

#include "switch/flow/flow_printer.h"

namespace ofswitch {
namespace {

using std::chrono::duration_cast;
using std::chrono::nanoseconds;

uint64_t nsBetween(FlowBook::Time from, FlowBook::Time to) {
  return static_cast<uint64_t>(
      std::max(duration_cast<nanoseconds>(to - from), nanoseconds(0)).count());
}

// As ovs-ofctl dump-flows has it, which the flow reader takes, too.
std::string dumpLine(const pb::FlowEntry& entry, bool noStats) {
  std::string line = fmt::format("cookie=0x{:x}, ", entry.cookie());
  if (!noStats) {
    line +=
        fmt::format("duration={}.{:03}s, ", entry.duration_ns() / 1'000'000'000,
                    entry.duration_ns() / 1'000'000 % 1000);
  }
  line += fmt::format("table={}, ", entry.table());
  if (!noStats) {
    line += fmt::format("n_packets={}, n_bytes={}, ", entry.n_packets(),
                        entry.n_bytes());
  }
  if (entry.idle_timeout() != 0) {
    line += fmt::format("idle_timeout={}, ", entry.idle_timeout());
  }
  if (entry.hard_timeout() != 0) {
    line += fmt::format("hard_timeout={}, ", entry.hard_timeout());
  }
  if (!noStats) {
    line += fmt::format("idle_age={}, ", entry.idle_age_ns() / 1'000'000'000);
  }
  line += fmt::format("priority={}", entry.priority());
  if (!entry.match().empty()) line += "," + entry.match();
  std::string actions;
  for (const std::string& action : entry.actions()) {
    actions += (actions.empty() ? "" : ",") + action;
  }
  return line + " actions=" + actions;
}

}  // namespace

pb::FlowEntry flowEntry(const FlowBook::View& view, FlowBook::Time now,
                        bool noStats) {
  const InstalledFlow& installed = *view.installed;
  const Flow& flow = installed.flow;
  pb::FlowEntry entry;
  entry.set_flow(flowText(flow));
  entry.set_table(flow.table);
  entry.set_priority(flow.priority);
  entry.set_cookie(flow.cookie);
  entry.set_idle_timeout(flow.idleTimeout);
  entry.set_hard_timeout(flow.hardTimeout);
  entry.set_match(matchText(flow.match));
  for (const Action& action : flow.actions) {
    entry.add_actions(actionText(action, flow.match));
  }
  entry.set_n_packets(view.counts.packets);
  entry.set_n_bytes(view.counts.bytes);
  entry.set_duration_ns(nsBetween(view.added, now));
  entry.set_idle_age_ns(nsBetween(view.lastUsed, now));
  entry.set_ttl_expired_packets(view.counts.ttlExpired);
  entry.set_ipv6(installed.rule.family == quil::pb::OPENFLOW_TYPE_IPV6);
  entry.set_flow_id(installed.rule.flowId);
  entry.set_module_priority(installed.rule.priority);
  entry.set_packet_counter(installed.rule.packetCounterId);
  entry.set_byte_counter(installed.rule.byteCounterId);
  entry.set_built_in(installed.isTableMiss);
  if (flow.line != 0) {
    entry.set_origin(fmt::format("{}:{}", flow.file, flow.line));
  } else {
    entry.set_origin(flow.file);
  }
  entry.set_text(dumpLine(entry, noStats));
  return entry;
}

}  // namespace ofswitch
