// SPDX-License-Identifier: BSD-3-Clause
//
// set_field for every field there is: what it is the same as, or why it cannot
// be.
#include "switch/flow/set_field.h"

#include <gtest/gtest.h>

#include <string>

#include "switch/flow/flow_printer.h"
#include "tests/switch/flow_texts.h"

namespace ofswitch {
namespace {

struct Row {
  const char* match;
  const char* field;
  const char* value;
  const char* answer;

  std::string action() const {
    return std::string("set_field:") + value + "->" + field;
  }
  std::string line() const {
    return std::string(match) + ",actions=" + action() + ",output:1";
  }
};

const Row kSame[] = {
    {"", "eth_src", "02:00:00:00:00:01", "mod_dl_src:02:00:00:00:00:01"},
    {"", "dl_src", "02:00:00:00:00:01", "mod_dl_src:02:00:00:00:00:01"},
    {"", "eth_dst", "02:00:00:00:00:01", "mod_dl_dst:02:00:00:00:00:01"},
    {"", "dl_dst", "02:00:00:00:00:01", "mod_dl_dst:02:00:00:00:00:01"},
    {"ip", "nw_src", "10.0.0.1", "mod_nw_src:10.0.0.1"},
    {"ip", "ip_src", "10.0.0.1", "mod_nw_src:10.0.0.1"},
    {"ip", "nw_dst", "10.0.0.1", "mod_nw_dst:10.0.0.1"},
    {"ip", "ip_dst", "10.0.0.1", "mod_nw_dst:10.0.0.1"},
    {"ip,nw_ecn=0", "nw_tos", "252", "mod_nw_tos:252"},
    {"ipv6,nw_ecn=0", "ip_dscp", "63", "mod_nw_tos:252"},
    {"ip,nw_tos=0", "nw_ecn", "3", "mod_nw_ecn:3"},
    {"ipv6,nw_tos=0", "ip_ecn", "3", "mod_nw_ecn:3"},
    {"tcp", "tp_src", "65535", "mod_tp_src:65535"},
    {"udp6", "tp_dst", "65535", "mod_tp_dst:65535"},
    {"tcp", "tcp_src", "65535", "mod_tp_src:65535"},
    {"tcp6", "tcp_dst", "65535", "mod_tp_dst:65535"},
    {"udp", "udp_src", "65535", "mod_tp_src:65535"},
    {"udp6", "udp_dst", "65535", "mod_tp_dst:65535"},
    {"dl_vlan=5", "vlan_vid", "0x1fff", "set_field:8191->vlan_vid"},
    {"dl_vlan=5", "vlan_vid", "5", "set_field:4101->vlan_vid"},
    {"dl_vlan=5", "vlan_pcp", "7", "set_field:7->vlan_pcp"},
    {"icmp", "icmp_type", "255", "set_field:255->icmp_type"},
    {"icmp6", "icmp_code", "255", "set_field:255->icmpv6_code"},
    {"icmp6", "icmpv6_type", "255", "set_field:255->icmpv6_type"},
    {"icmp6", "icmpv6_code", "255", "set_field:255->icmpv6_code"},
};

TEST(SetField, IsTheActionOfThatField) {
  for (const Row& row : kSame) {
    const Flow flow = FlowReader().readLine(row.line());
    ASSERT_EQ(flow.actions.size(), 2u) << row.line();
    EXPECT_EQ(actionText(flow.actions[0], flow.match), row.answer)
        << row.line();
  }
}

// The value, the arrow and the field may stand apart.
TEST(SetField, IsReadWithBlanks) {
  Word word;
  word.text = "set_field";
  word.value = " 5 -> vlan_vid ";
  EXPECT_EQ(parseSetField(word, {}), (Action{ActionKind::kEditVlanVid, 5}));
}

const Row kTooLarge[] = {
    {"ip", "nw_tos", "256", "256 is above 255"},
    {"ip", "ip_dscp", "64", "64 is above 63"},
    {"ip", "nw_ecn", "4", "4 is above 3"},
    {"ip", "ip_ecn", "4", "4 is above 3"},
    {"tcp", "tp_src", "65536", "65536 is above 65535"},
    {"tcp", "tp_dst", "65536", "65536 is above 65535"},
    {"tcp", "tcp_src", "65536", "65536 is above 65535"},
    {"tcp", "tcp_dst", "65536", "65536 is above 65535"},
    {"udp", "udp_src", "65536", "65536 is above 65535"},
    {"udp", "udp_dst", "65536", "65536 is above 65535"},
    {"dl_vlan=5", "vlan_vid", "8192", "8192 is above 8191"},
    {"dl_vlan=5", "vlan_pcp", "8", "8 is above 7"},
    {"icmp", "icmp_type", "256", "256 is above 255"},
    {"icmp", "icmp_code", "256", "256 is above 255"},
    {"icmp6", "icmpv6_type", "256", "256 is above 255"},
    {"icmp6", "icmpv6_code", "256", "256 is above 255"},
};

TEST(SetField, TakesWhatTheFieldHolds) {
  for (const Row& row : kTooLarge) {
    EXPECT_EQ(refusalOf(row.line()), row.action() + ": " + row.answer);
  }
}

const Row kNeeds[] = {
    {"", "nw_src", "1", "ip"},
    {"", "ip_src", "1", "ip"},
    {"", "nw_dst", "1", "ip"},
    {"", "ip_dst", "1", "ip"},
    {"", "nw_tos", "1", "ip or ipv6"},
    {"", "ip_dscp", "1", "ip or ipv6"},
    {"", "nw_ecn", "1", "ip or ipv6"},
    {"", "ip_ecn", "1", "ip or ipv6"},
    {"", "tp_src", "1", "tcp, udp, tcp6 or udp6"},
    {"", "tp_dst", "1", "tcp, udp, tcp6 or udp6"},
    {"", "tcp_src", "1", "tcp or tcp6"},
    {"", "tcp_dst", "1", "tcp or tcp6"},
    {"", "udp_src", "1", "udp or udp6"},
    {"", "udp_dst", "1", "udp or udp6"},
    {"", "icmp_type", "1", "icmp or icmp6"},
    {"", "icmp_code", "1", "icmp or icmp6"},
    {"", "icmpv6_type", "1", "icmp6"},
    {"", "icmpv6_code", "1", "icmp6"},
};

TEST(SetField, NeedsTheFieldInEveryPacket) {
  for (const Row& row : kNeeds) {
    EXPECT_EQ(refusalOf(row.line()),
              row.action() + ": needs " + row.answer + " in the match");
  }
}

const Row kNever[] = {
    {"", "ipv6_src", "1", "the module does not rewrite IPv6 addresses"},
    {"", "ipv6_dst", "1", "the module does not rewrite IPv6 addresses"},
    {"", "ipv6_label", "1", "the module does not rewrite the IPv6 flow label"},
    {"", "nw_ttl", "1", "the module only decrements the TTL; write dec_ttl"},
    {"", "ip_ttl", "1", "the module only decrements the TTL; write dec_ttl"},
    {"", "metadata", "1", "the metadata of a packet carries its in-port here"},
    {"", "in_port", "1", "the in-port of a packet does not change"},
    {"", "vlan_tci", "1", "write mod_vlan_vid:VID and mod_vlan_pcp:PRIORITY"},
    {"", "dl_vlan", "1", "write mod_vlan_vid:VID"},
    {"", "dl_vlan_pcp", "1", "write mod_vlan_pcp:PRIORITY"},
    {"", "sctp_src", "1", "the module rewrites the ports of TCP and UDP only"},
    {"", "sctp_dst", "1", "the module rewrites the ports of TCP and UDP only"},
    {"", "arp_spa", "1", "the module does not rewrite ARP"},
    {"", "arp_tpa", "1", "the module does not rewrite ARP"},
    {"", "arp_sha", "1", "the module does not rewrite ARP"},
    {"", "arp_tha", "1", "the module does not rewrite ARP"},
    {"", "arp_op", "1", "the module does not rewrite ARP"},
    {"", "dl_type", "1", "the type of a frame does not change"},
    {"", "eth_type", "1", "the type of a frame does not change"},
    {"", "nw_proto", "1", "the protocol of a packet does not change"},
    {"", "ip_proto", "1", "the protocol of a packet does not change"},
    {"", "tcp_flags", "1", "the module does not rewrite TCP flags"},
    {"", "tun_id", "1", "the module has no tunnels"},
    {"", "tunnel_id", "1", "the module has no tunnels"},
    {"", "pkt_mark", "1", "packets carry no mark here"},
    {"", "reg0", "1", "the module has no registers"},
    {"", "xreg0", "1", "the module has no registers"},
    {"", "xxreg0", "1", "the module has no registers"},
};

TEST(SetField, SaysWhatDoesNotChange) {
  for (const Row& row : kNever) {
    EXPECT_EQ(refusalOf(row.line()), row.action() + ": " + row.answer);
  }
  EXPECT_EQ(refusalOf("actions=set_field:1->tp_scr,1"),
            "set_field:1->tp_scr: cannot set \"tp_scr\", did you mean "
            "\"tp_src\"?");
}

}  // namespace
}  // namespace ofswitch
