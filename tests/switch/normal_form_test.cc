// SPDX-License-Identifier: BSD-3-Clause
//
// Flows as they are shown: each of these lines is read, and printed as it is.
#include <gtest/gtest.h>

#include <string>

#include "switch/flow/flow_printer.h"
#include "switch/flow/flow_reader.h"

namespace ofswitch {
namespace {

std::string normalForm(const std::string& line) {
  return flowText(FlowReader({.allowTimeouts = true}).readLine(line));
}

TEST(NormalForm, OfEachMatch) {
  for (const char* match : {
           "in_port=3",
           "dl_vlan=5",
           "dl_vlan_pcp=3",
           "dl_vlan=5,dl_vlan_pcp=3",
           "dl_vlan=0,dl_vlan_pcp=3",
           "vlan_tci=0x0000/0xefff",
           "vlan_tci=0x0000/0xe000",
           "vlan_tci=0x0000/0x0fff",
           "vlan_tci=0x0004/0x0007",
           "dl_src=02:00:00:00:00:01,dl_dst=02:00:00:00:00:02",
           "dl_src=02:00:00:00:00:00/ff:00:00:00:00:0f",
           "dl_dst=01:00:00:00:00:00/01:00:00:00:00:00",
           "dl_type=0x88cc",
           "arp,arp_tpa=10.0.0.1",
           "rarp",
           "ip,nw_proto=47",
           "ipv6,nw_proto=47",
           "ip,nw_src=10.0.0.0/8,nw_dst=10.0.0.2",
           "ip,nw_src=10.0.0.1/255.0.0.255",
           "ip,nw_tos=184,nw_ecn=2,nw_ttl=64",
           "ip,nw_ttl=0/0xfe",
           "ipv6,ipv6_src=2001:db8::/32,ipv6_dst=2001:db8::1",
           "ipv6,ipv6_src=2001:db8::/80,ipv6_dst=2001:db8::/64",
           "ipv6,ipv6_src=2001:db8::/127,ipv6_dst=2000::/3",
           "ipv6,ipv6_dst=::1/ffff::ffff",
           "icmp,icmp_type=8,icmp_code=0",
           "icmp6,icmp_type=135,icmp_code=1",
           "tcp,tp_src=1,tp_dst=2,tcp_flags=+syn-ack",
           "tcp6,tcp_flags=-fin+cwr",
           "udp,tp_src=53",
           "udp6,tp_dst=53",
           "sctp",
           "sctp6",
       }) {
    const std::string line =
        std::string("table=0,priority=7,") + match + ",actions=drop";
    EXPECT_EQ(normalForm(line), line);
  }
}

TEST(NormalForm, OfEachAction) {
  for (const char* flow : {
           "dl_vlan=5,actions=output:1,in_port,all,flood,goto_table:3",
           "dl_vlan=5,actions=controller(reason=action)",
           "dl_vlan=5,actions=controller(reason=no_match)",
           "dl_vlan=5,actions=controller(reason=invalid_ttl)",
           "dl_vlan=5,actions=mod_dl_src:02:00:00:00:00:01,"
           "mod_dl_dst:02:00:00:00:00:02,output:1",
           "dl_vlan=5,actions=mod_vlan_vid:6,mod_vlan_pcp:3,output:1",
           "dl_vlan=5,actions=set_field:4102->vlan_vid,"
           "set_field:3->vlan_pcp,output:1",
           "ip,dl_vlan=5,actions=strip_vlan,push_vlan:0x8100,output:1",
           "ip,actions=mod_nw_src:10.0.0.1,mod_nw_dst:10.0.0.2,output:1",
           "ip,actions=mod_nw_tos:184,mod_nw_ecn:2,dec_ttl,output:1",
           "tcp,actions=mod_tp_src:1,mod_tp_dst:2,output:1",
           "icmp,actions=set_field:8->icmp_type,set_field:1->icmp_code,"
           "output:1",
           "icmp6,actions=set_field:135->icmpv6_type,"
           "set_field:1->icmpv6_code,output:1",
       }) {
    const std::string line = std::string("table=0,priority=7,") + flow;
    EXPECT_EQ(normalForm(line), line);
  }
}

TEST(NormalForm, OfWhatAFlowHasBesides) {
  const std::string line =
      "table=31,priority=65535,cookie=0x1f,idle_timeout=8,hard_timeout=9,"
      "in_port=1,actions=drop";
  EXPECT_EQ(normalForm(line), line);
  EXPECT_EQ(normalForm("actions="), "table=0,priority=32768,actions=");
}

}  // namespace
}  // namespace ofswitch
