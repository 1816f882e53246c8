// SPDX-License-Identifier: BSD-3-Clause
#include <algorithm>
#include <vector>

#include "switch/client/drops_text.h"
#include "switch/client/reports.h"
#include "switch/terminal/amounts.h"
#include "switch/terminal/text_table.h"

namespace ofswitch {
namespace {

uint64_t sumOf(const google::protobuf::RepeatedPtrField<pb::DropCause>& drops) {
  uint64_t sum = 0;
  for (const pb::DropCause& drop : drops) sum += drop.packets();
  return sum;
}

std::string number(uint64_t n) { return std::to_string(n); }

}  // namespace

std::string tablesText(const pb::TablesReply& reply) {
  TextTable table({"table", "flows", "IPv4 rules", "IPv6 rules", "packets",
                   "matched", "dropped", "builds", "failed", "longest build"});
  std::vector<pb::DropCause> drops;
  for (const pb::Table& one : reply.tables()) {
    const uint64_t longest =
        std::max(one.ipv4().longest_build_ns(), one.ipv6().longest_build_ns());
    table.add({number(one.table()), number(one.flows()),
               number(one.ipv4().flows()), number(one.ipv6().flows()),
               number(one.entered()), number(one.matched()),
               number(sumOf(one.drops())),
               number(one.ipv4().builds() + one.ipv6().builds()),
               number(one.ipv4().failed_builds() + one.ipv6().failed_builds()),
               longest == 0 ? "-" : timeText(longest)});
    drops.insert(drops.end(), one.drops().begin(), one.drops().end());
  }
  if (!table.hasRows()) {
    return "no table has flows or has seen a packet; --all lists all tables\n";
  }
  return table.text() + dropsText(drops);
}

std::string portsText(const pb::PortsReply& reply) {
  TextTable table(
      {"port", "Mbit/s", "MTU", "packets in", "bytes in", "packets out",
       "bytes out", "dropped", "link", "name", "device"},
      3);
  std::vector<pb::DropCause> drops;
  for (const pb::Port& port : reply.ports()) {
    const bool isController = port.port() == 0;
    table.add({number(port.port()),
               port.speed_mbps() == 0 ? "-" : number(port.speed_mbps()),
               isController ? "-" : number(port.mtu()),
               number(port.rx_packets()), number(port.rx_bytes()),
               number(port.tx_packets()), number(port.tx_bytes()),
               number(sumOf(port.drops())),
               isController     ? "-"
               : port.link_up() ? "up"
                                : "down",
               port.name(), port.device()});
    drops.insert(drops.end(), port.drops().begin(), port.drops().end());
  }
  return table.text() + dropsText(drops);
}

}  // namespace ofswitch
