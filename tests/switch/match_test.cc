// SPDX-License-Identifier: BSD-3-Clause
//
// Each field in each of its forms: the exact match message, and the family.
#include <gtest/gtest.h>

#include <string>

#include "switch/flow/encode.h"
#include "switch/flow/flow_printer.h"
#include "tests/switch/flow_texts.h"

namespace ofswitch {
namespace {

struct MatchCase {
  const char* text;
  const char* message;
  bool ipv6 = false;
};

void PrintTo(const MatchCase& row, std::ostream* out) { *out << row.text; }

const MatchCase kCases[] = {
    {"", ""},
    {"eth", ""},
    {"in_port=1", "fields{metadata:true} values{metadata:1}"},
    {"in_port=0x1fff", "fields{metadata:true} values{metadata:8191}"},
    {"metadata=0", ""},
    {"metadata=5/0", ""},
    {"in_port=3,metadata=0", "fields{metadata:true} values{metadata:3}"},
    {"dl_src=02:00:00:00:00:01",
     "fields{ethSrc:true} values{ethSrc:'\\x02\\0\\0\\0\\0\\x01' "
     "ethSrcMask:'\\xff\\xff\\xff\\xff\\xff\\xff'}"},
    {"dl_src=1:2:3:4:5:f/ff:00:00:00:00:0f",
     "fields{ethSrc:true} values{ethSrc:'\\x01\\0\\0\\0\\0\\x0f' "
     "ethSrcMask:'\\xff\\0\\0\\0\\0\\x0f'}"},
    {"eth_dst=1:2:3:4:5:f/ff:00:00:00:00:0f",
     "fields{ethDst:true} values{ethDst:'\\x01\\0\\0\\0\\0\\x0f' "
     "ethDstMask:'\\xff\\0\\0\\0\\0\\x0f'}"},
    {"dl_dst=01:00:00:00:00:00/00:00:00:00:00:00", ""},
    {"dl_type=0x88cc", "fields{ethType:true} values{ethType:0x88cc}"},
    {"dl_type=0x0600", "fields{ethType:true} values{ethType:0x0600}"},
    {"eth_type=2048", "fields{ethType:true} values{ethType:0x0800}"},
    {"dl_type=0x86dd", "fields{ethType:true} values{ethType:0x86dd}", true},
    {"ip", "fields{ethType:true} values{ethType:0x0800}"},
    {"ipv6", "fields{ethType:true} values{ethType:0x86dd}", true},
    {"arp", "fields{ethType:true} values{ethType:0x0806}"},
    {"rarp", "fields{ethType:true} values{ethType:0x8035}"},
    {"mpls", "fields{ethType:true} values{ethType:0x8847}"},
    {"mplsm", "fields{ethType:true} values{ethType:0x8848}"},
    {"icmp",
     "fields{ethType:true ipProto:true} values{ethType:0x0800 ipProto:1}"},
    {"tcp",
     "fields{ethType:true ipProto:true} values{ethType:0x0800 ipProto:6}"},
    {"udp",
     "fields{ethType:true ipProto:true} values{ethType:0x0800 ipProto:17}"},
    {"sctp",
     "fields{ethType:true ipProto:true} values{ethType:0x0800 ipProto:132}"},
    {"icmp6",
     "fields{ethType:true ipProto:true} values{ethType:0x86dd ipProto:58}",
     true},
    {"tcp6",
     "fields{ethType:true ipProto:true} values{ethType:0x86dd ipProto:6}",
     true},
    {"udp6",
     "fields{ethType:true ipProto:true} values{ethType:0x86dd ipProto:17}",
     true},
    {"sctp6",
     "fields{ethType:true ipProto:true} values{ethType:0x86dd ipProto:132}",
     true},
    {"nw_proto=0,ip",
     "fields{ethType:true ipProto:true} values{ethType:0x0800 ipProto:0}"},
    {"ip_proto=17,dl_type=0x86dd",
     "fields{ethType:true ipProto:true} values{ethType:0x86dd ipProto:17}",
     true},
    {"ip,tcp,nw_proto=6",
     "fields{ethType:true ipProto:true} values{ethType:0x0800 ipProto:6}"},
    // VLAN tags.
    {"dl_vlan=100",
     "fields{vlanVid:true} values{vlanVid:100 vlanVidMask:0xfff}"},
    {"dl_vlan=4095",
     "fields{vlanVid:true} values{vlanVid:4095 vlanVidMask:0xfff}"},
    {"vlan_vid=0x1064",
     "fields{vlanVid:true} values{vlanVid:100 vlanVidMask:0xfff}"},
    {"vlan_vid=0x1004/0x1007",
     "fields{vlanVid:true} values{vlanVid:4 vlanVidMask:7}"},
    {"vlan_tci=0x1064/0x1fff",
     "fields{vlanVid:true} values{vlanVid:100 vlanVidMask:0xfff}"},
    {"vlan_tci=0xb064",
     "fields{vlanVid:true vlanPcp:true} "
     "values{vlanVid:100 vlanVidMask:0xfff vlanPcp:5}"},
    {"vlan_tci=0x0000/0xefff",
     "fields{vlanVid:true vlanPcp:true} "
     "values{vlanVid:0 vlanVidMask:0xfff vlanPcp:0}"},
    {"vlan_tci=0/0x0fff",
     "fields{vlanVid:true} values{vlanVid:0 vlanVidMask:0xfff}"},
    {"vlan_tci=0x4000/0x4000",
     "fields{vlanVid:true} values{vlanVid:0x4000 vlanVidMask:0x4000}"},
    {"vlan_tci=5/0", ""},
    {"dl_vlan_pcp=5", "fields{vlanPcp:true} values{vlanPcp:5}"},
    {"dl_vlan=100,vlan_pcp=0",
     "fields{vlanVid:true vlanPcp:true} "
     "values{vlanVid:100 vlanVidMask:0xfff vlanPcp:0}"},
    {"dl_vlan=0,dl_vlan_pcp=3",
     "fields{vlanVid:true vlanPcp:true} "
     "values{vlanVid:0 vlanVidMask:0xfff vlanPcp:3}"},
    // Addresses.
    {"ip,nw_src=10.1.2.3",
     "fields{ethType:true ipv4Src:true} values{ethType:0x0800 "
     "ipv4Src:0x0a010203 ipv4SrcMask:0xffffffff}"},
    {"nw_dst=10.1.2.3/8,ip",
     "fields{ethType:true ipv4Dst:true} values{ethType:0x0800 "
     "ipv4Dst:0x0a000000 ipv4DstMask:0xff000000}"},
    {"ip,ip_dst=10.1.2.3/255.0.0.255",
     "fields{ethType:true ipv4Dst:true} values{ethType:0x0800 "
     "ipv4Dst:0x0a000003 ipv4DstMask:0xff0000ff}"},
    {"ip,ip_src=1.2.3.4/0", "fields{ethType:true} values{ethType:0x0800}"},
    {"ip,nw_src=*,nw_dst=*", "fields{ethType:true} values{ethType:0x0800}"},
    {"arp,arp_tpa=10.0.0.1",
     "fields{ethType:true arpTpa:true} values{ethType:0x0806 "
     "arpTpa:0x0a000001 arpTpaMask:0xffffffff}"},
    {"arp,nw_dst=10.0.0.0/24",
     "fields{ethType:true arpTpa:true} values{ethType:0x0806 "
     "arpTpa:0x0a000000 arpTpaMask:0xffffff00}"},
    {"ipv6,ipv6_src=2001:db8::1",
     "fields{ethType:true ipv6Src:true} values{ethType:0x86dd "
     "ipv6Src:'\\x20\\x01\\x0d\\xb8\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0\\x01' "
     "ipv6SrcMask:'\\xff\\xff\\xff\\xff\\xff\\xff\\xff\\xff\\xff\\xff\\xff"
     "\\xff\\xff\\xff\\xff\\xff'}",
     true},
    {"ipv6,ipv6_dst=2001:db8:ffff::/35",
     "fields{ethType:true ipv6Dst:true} values{ethType:0x86dd "
     "ipv6Dst:'\\x20\\x01\\x0d\\xb8\\xe0\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0' "
     "ipv6DstMask:'\\xff\\xff\\xff\\xff\\xe0\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0"
     "\\0'}",
     true},
    {"ipv6,ipv6_dst=::5/::f",
     "fields{ethType:true ipv6Dst:true} values{ethType:0x86dd "
     "ipv6Dst:'\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0\\x05' "
     "ipv6DstMask:'\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0\\x0f'}",
     true},
    // The other IP fields.
    {"ip,nw_tos=32",
     "fields{ethType:true ipTos:true} values{ethType:0x0800 ipTos:32 "
     "ipTosMask:0xfc}"},
    {"ipv6,ip_dscp=8",
     "fields{ethType:true ipTos:true} values{ethType:0x86dd ipTos:32 "
     "ipTosMask:0xfc}",
     true},
    {"ip,nw_ecn=2",
     "fields{ethType:true ipTos:true} values{ethType:0x0800 ipTos:2 "
     "ipTosMask:0x03}"},
    {"ip,nw_tos=32,ip_ecn=1",
     "fields{ethType:true ipTos:true} values{ethType:0x0800 ipTos:33 "
     "ipTosMask:0xff}"},
    {"ip,nw_ttl=64",
     "fields{ethType:true ipTtl:true} values{ethType:0x0800 ipTtl:64 "
     "ipTtlMask:0xff}"},
    {"ipv6,ip_ttl=0/0xfe",
     "fields{ethType:true ipTtl:true} values{ethType:0x86dd ipTtl:0 "
     "ipTtlMask:0xfe}",
     true},
    // Ports, flags, ICMP.
    {"tcp,tp_src=7,tp_dst=80",
     "fields{ethType:true ipProto:true l4SrcPort:true l4DstPort:true} "
     "values{ethType:0x0800 ipProto:6 l4SrcPort:7 l4DstPort:80}"},
    {"tcp6,tcp_src=7,tcp_dst=0",
     "fields{ethType:true ipProto:true l4SrcPort:true l4DstPort:true} "
     "values{ethType:0x86dd ipProto:6 l4SrcPort:7 l4DstPort:0}",
     true},
    {"udp_dst=53/0xffff,udp,udp_src=0x35",
     "fields{ethType:true ipProto:true l4SrcPort:true l4DstPort:true} "
     "values{ethType:0x0800 ipProto:17 l4SrcPort:53 l4DstPort:53}"},
    {"tcp,tcp_flags=+syn-ack",
     "fields{ethType:true ipProto:true tcpFlags:true} "
     "values{ethType:0x0800 ipProto:6 tcpFlags:2 tcpFlagsMask:0x12}"},
    {"tcp,tcp_flags=-fin-rst-psh-urg-ece+cwr",
     "fields{ethType:true ipProto:true tcpFlags:true} "
     "values{ethType:0x0800 ipProto:6 tcpFlags:0x80 tcpFlagsMask:0xed}"},
    {"tcp6,tcp_flags=0x12/0xff",
     "fields{ethType:true ipProto:true tcpFlags:true} "
     "values{ethType:0x86dd ipProto:6 tcpFlags:0x12 tcpFlagsMask:0xff}",
     true},
    {"icmp,icmp_type=8,icmp_code=0",
     "fields{ethType:true ipProto:true icmpType:true icmpCode:true} "
     "values{ethType:0x0800 ipProto:1 icmpType:8 icmpCode:0}"},
    {"icmp,tp_src=8,tp_dst=1",
     "fields{ethType:true ipProto:true icmpType:true icmpCode:true} "
     "values{ethType:0x0800 ipProto:1 icmpType:8 icmpCode:1}"},
    {"icmp6,icmpv6_type=128,icmpv6_code=2",
     "fields{ethType:true ipProto:true icmpType:true icmpCode:true} "
     "values{ethType:0x86dd ipProto:58 icmpType:128 icmpCode:2}",
     true},
    {"icmp6,icmp_type=135",
     "fields{ethType:true ipProto:true icmpType:true} "
     "values{ethType:0x86dd ipProto:58 icmpType:135}",
     true},
};

class MatchText : public testing::TestWithParam<MatchCase> {};

TEST_P(MatchText, BecomesTheModulesMatch) {
  const MatchCase& row = GetParam();
  const std::string line = std::string(row.text) + " actions=drop";
  ASSERT_EQ(refusalOf(line), "") << line;
  const Flow flow = FlowReader().readLine(line);
  EXPECT_TRUE(isMessage(encodeMatch(flow.match), row.message)) << line;
  EXPECT_EQ(familyOf(flow.match) == quil::pb::OPENFLOW_TYPE_IPV6, row.ipv6)
      << line;
}

TEST_P(MatchText, ReadsBackFromItsNormalForm) {
  const std::string line = std::string(GetParam().text) + " actions=drop";
  const Flow flow = FlowReader().readLine(line);
  EXPECT_EQ(FlowReader().readLine(flowText(flow)), flow) << flowText(flow);
}

INSTANTIATE_TEST_SUITE_P(Fields, MatchText, testing::ValuesIn(kCases));

}  // namespace
}  // namespace ofswitch
