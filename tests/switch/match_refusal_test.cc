// SPDX-License-Identifier: BSD-3-Clause
//
// What the classifier key cannot hold, what OpenFlow does not allow, and what
// nobody meant: each with its whole sentence.
#include <gtest/gtest.h>

#include <string>

#include "tests/switch/flow_texts.h"

namespace ofswitch {
namespace {

struct RefusalCase {
  const char* text;
  const char* reason;
};

void PrintTo(const RefusalCase& row, std::ostream* out) { *out << row.text; }

const RefusalCase kCases[] = {
    // Unknown words.
    {"nw_dts=10.0.0.1", "unknown field \"nw_dts\", did you mean \"nw_dst\"?"},
    {"prioritty=5", "unknown field \"prioritty\", did you mean \"priority\"?"},
    {"tpc", "unknown field \"tpc\", did you mean \"tcp\"?"},
    {"qqqqqqqq=1", "unknown field \"qqqqqqqq\""},
    {"=5", "unknown field \"\""},
    {":5", "unknown field \"\""},
    {"tcp=6", "tcp=6: takes no value"},
    {"tcp,tp_dst", "tp_dst: needs a value, tp_dst=VALUE"},
    {"tcp,tp_dst=", "tp_dst=: needs a value, tp_dst=VALUE"},
    {"tcp,tp_dst=80,tp_dst=80",
     "tp_dst=80: the field stands in the flow twice"},
    {"dl_src=00:00:00:00:00:01,eth_src=00:00:00:00:00:01",
     "eth_src=00:00:00:00:00:01: the field stands in the flow twice"},
    {"ip,ipv6", "ipv6: contradicts an earlier word of the flow"},
    {"tcp,udp", "udp: contradicts an earlier word of the flow"},
    {"tcp,nw_proto=17", "nw_proto=17: contradicts an earlier word of the flow"},
    {"learn(table=1", "learn(table=1: \"(\" without \")\""},
    {"ip)", "ip): \")\" without \"(\""},
    {"tcp,ip),in_port=1", "ip): \")\" without \"(\""},
    {"tcp, a(1,in_port=1", "a(1,in_port=1: \"(\" without \")\""},
    {"a(1)b", "a(1)b: nothing may follow \")\""},
    // Numbers and addresses.
    {"tcp,tp_dst=65536", "tp_dst=65536: 65536 is above 65535"},
    {"tcp,tp_dst=http", "tp_dst=http: \"http\" is not a number"},
    {"tcp,tp_dst=-1", "tp_dst=-1: \"-1\" is not a number"},
    {"tcp,tp_dst=0x", "tp_dst=0x: \"0x\" is not a number"},
    {"tcp,tcp_flags=syn|ack|fin",
     "tcp_flags=syn|ack|fin: the module reads the flags fin to cwr, not the "
     "four above them; write tcp_flags=0x13/0xff"},
    {"tcp,tp_dst=09", "tp_dst=09: \"09\" is not a number"},
    {"tcp,tp_dst=08", "tp_dst=08: \"08\" is not a number"},
    {"ip,nw_ttl=99999999999999999999",
     "nw_ttl=99999999999999999999: \"99999999999999999999\" is not a number"},
    {"dl_src=00:00:00:00:01",
     "dl_src=00:00:00:00:01: \"00:00:00:00:01\" is not a MAC address"},
    {"dl_src=00:00:00:00:00:00:01",
     "dl_src=00:00:00:00:00:00:01: \"00:00:00:00:00:00:01\" is not a MAC "
     "address"},
    {"dl_src=00:00:00:00:00:001",
     "dl_src=00:00:00:00:00:001: \"00:00:00:00:00:001\" is not a MAC address"},
    {"dl_src=00:00:00:00:00:0g",
     "dl_src=00:00:00:00:00:0g: \"00:00:00:00:00:0g\" is not a MAC address"},
    {"ip,nw_dst=10.0.0", "nw_dst=10.0.0: \"10.0.0\" is not an IPv4 address"},
    {"ip,nw_dst=10.0.0.0/33",
     "nw_dst=10.0.0.0/33: a prefix is at most 32 bits long"},
    {"ip,nw_dst=10.0.0.0/x", "nw_dst=10.0.0.0/x: \"x\" is not an IPv4 address"},
    {"ipv6,ipv6_dst=2001::db8::",
     "ipv6_dst=2001::db8::: \"2001::db8::\" is not an IPv6 address"},
    {"ipv6,ipv6_dst=::/129",
     "ipv6_dst=::/129: a prefix is at most 128 bits "
     "long"},
    // Ports of the switch and metadata.
    {"in_port=0", "in_port=0: ports are numbers from 1 to 8191"},
    {"in_port=8192", "in_port=8192: ports are numbers from 1 to 8191"},
    {"in_port=LOCAL", "in_port=LOCAL: ports are numbers from 1 to 8191"},
    {"in_port=1/1", "in_port=1/1: ports are numbers from 1 to 8191"},
    {"metadata=5",
     "metadata=5: matches no packet, nothing writes metadata here (the "
     "module's own metadata carries the in-port); write in_port=PORT"},
    {"in_port=1,metadata=0x10/0xf0",
     "metadata=0x10/0xf0: matches no packet, nothing writes metadata here "
     "(the module's own metadata carries the in-port); write in_port=PORT"},
    // Ethernet types.
    {"dl_type=0x05ff",
     "dl_type=0x05ff: below 0x0600 stands a length, and the module does not "
     "tell 802.3 frames apart by it; leave dl_type out"},
    {"dl_type=0x8100",
     "dl_type=0x8100: dl_type is the type behind the VLAN tag; write "
     "dl_vlan=VID to match the tag"},
    {"dl_type=0x88a8",
     "dl_type=0x88a8: dl_type is the type behind the VLAN tag; write "
     "dl_vlan=VID to match the tag"},
    {"dl_type=0x0800/0xff00",
     "dl_type=0x0800/0xff00: the module compares dl_type without a mask; "
     "write dl_type=VALUE, one flow for each value"},
    // VLAN tags.
    {"dl_vlan=0xffff",
     "dl_vlan=0xffff: the module cannot tell an untagged frame from one "
     "tagged with VID 0 and priority 0; write vlan_tci=0x0000/0xefff to "
     "match both"},
    {"vlan_tci=5/0xfff,dl_vlan=0xffff",
     "dl_vlan=0xffff: matches no frame, an untagged frame has no VID and no "
     "priority; write dl_vlan=VID for a tagged one"},
    {"vlan_tci=0",
     "vlan_tci=0: the module cannot tell an untagged frame from one tagged "
     "with VID 0 and priority 0; write vlan_tci=0x0000/0xefff to match both"},
    {"vlan_tci=0x0000/0x1fff",
     "vlan_tci=0x0000/0x1fff: the module cannot tell an untagged frame from "
     "one tagged with VID 0 and priority 0; write vlan_tci=0x0000/0xefff to "
     "match both"},
    {"vlan_vid=0",
     "vlan_vid=0: the module cannot tell an untagged frame from one tagged "
     "with VID 0 and priority 0; write vlan_tci=0x0000/0xefff to match both"},
    {"vlan_vid=5",
     "vlan_vid=5: matches no frame without the bit 0x1000, which stands for "
     "the tag; did you mean dl_vlan=5?"},
    {"vlan_vid=4095",
     "vlan_vid=4095: matches no frame without the bit 0x1000, which stands for "
     "the tag; did you mean dl_vlan=4095?"},
    {"vlan_vid=0x1000/0x1000",
     "vlan_vid=0x1000/0x1000: the module cannot tell a tag with VID 0 and "
     "priority 0 from no tag; match a VID or a priority above 0"},
    {"dl_vlan=0",
     "dl_vlan=0: the module cannot tell a tag with VID 0 and priority 0 from "
     "no tag; match a VID or a priority above 0, or write "
     "vlan_tci=0x0000/0x0fff to match untagged frames too"},
    {"vlan_pcp=0",
     "vlan_pcp=0: the module cannot tell a tag with VID 0 and priority 0 "
     "from no tag; match a VID or a priority above 0, or write "
     "vlan_tci=0x0000/0xe000 to match untagged frames too"},
    {"dl_vlan=4096", "dl_vlan=4096: 4096 is above 4095"},
    {"dl_vlan=5/0xf", "dl_vlan=5/0xf: takes no mask"},
    {"dl_vlan_pcp=8", "dl_vlan_pcp=8: 8 is above 7"},
    {"dl_vlan_pcp=4/4",
     "dl_vlan_pcp=4/4: the module compares dl_vlan_pcp without a mask; write "
     "dl_vlan_pcp=VALUE, one flow for each value"},
    {"dl_vlan=0xffff,dl_vlan_pcp=3",
     "dl_vlan_pcp=3: contradicts an earlier word of the flow"},
    {"vlan_vid=0x2000", "vlan_vid=0x2000: 0x2000 is above 8191"},
    // Prerequisites.
    {"nw_src=10.0.0.1", "nw_src=10.0.0.1: needs ip in the match"},
    {"nw_dst=10.0.0.1", "nw_dst=10.0.0.1: needs ip or arp in the match"},
    {"ipv6,nw_dst=10.0.0.1", "nw_dst=10.0.0.1: needs ip or arp in the match"},
    {"ip,ipv6_src=::1", "ipv6_src=::1: needs ipv6 in the match"},
    {"ipv6_dst=::1", "ipv6_dst=::1: needs ipv6 in the match"},
    {"ip,arp_tpa=10.0.0.1", "arp_tpa=10.0.0.1: needs arp in the match"},
    {"rarp,arp_tpa=10.0.0.1", "arp_tpa=10.0.0.1: needs arp in the match"},
    {"nw_proto=6", "nw_proto=6: needs ip or ipv6 in the match"},
    {"nw_tos=4", "nw_tos=4: needs ip or ipv6 in the match"},
    {"ip_dscp=4", "ip_dscp=4: needs ip or ipv6 in the match"},
    {"nw_ecn=1", "nw_ecn=1: needs ip or ipv6 in the match"},
    {"arp,nw_ttl=1", "nw_ttl=1: needs ip or ipv6 in the match"},
    {"ip,tp_src=1", "tp_src=1: needs tcp, udp, tcp6 or udp6 in the match"},
    {"tp_dst=80", "tp_dst=80: needs tcp, udp, tcp6 or udp6 in the match"},
    {"udp,tcp_dst=80", "tcp_dst=80: needs tcp or tcp6 in the match"},
    {"udp,tcp_src=80", "tcp_src=80: needs tcp or tcp6 in the match"},
    {"tcp,udp_dst=80", "udp_dst=80: needs udp or udp6 in the match"},
    {"tcp,udp_src=80", "udp_src=80: needs udp or udp6 in the match"},
    {"tcp,sctp_dst=80", "sctp_dst=80: needs sctp or sctp6 in the match"},
    {"udp,tcp_flags=+syn", "tcp_flags=+syn: needs tcp or tcp6 in the match"},
    {"udp,icmp_type=8", "icmp_type=8: needs icmp or icmp6 in the match"},
    {"ipv6,nw_proto=1,icmp_type=8",
     "icmp_type=8: needs icmp or icmp6 in the match"},
    {"ip,icmp_code=8", "icmp_code=8: needs icmp or icmp6 in the match"},
    {"icmp,icmpv6_type=128", "icmpv6_type=128: needs icmp6 in the match"},
    {"icmp,icmpv6_code=0", "icmpv6_code=0: needs icmp6 in the match"},
    // What the key does not hold.
    {"arp,nw_src=10.0.0.1",
     "nw_src=10.0.0.1: the module reads only the ARP target address; write "
     "arp_tpa=ADDRESS"},
    {"arp,nw_proto=1",
     "nw_proto=1: the module does not read the ARP operation"},
    {"arp,arp_spa=10.0.0.1",
     "arp_spa=10.0.0.1: the module reads only the ARP target address; write "
     "arp_tpa=ADDRESS"},
    {"arp,arp_op=1", "arp_op=1: the module does not read the ARP operation"},
    {"sctp,tp_dst=80",
     "tp_dst=80: the module reads the ports of TCP and UDP only"},
    {"sctp,sctp_src=80",
     "sctp_src=80: the module reads the ports of TCP and UDP only"},
    {"tcp,tp_dst=0x1000/0xf000",
     "tp_dst=0x1000/0xf000: the module compares tp_dst without a mask; write "
     "tp_dst=VALUE, one flow for each value"},
    {"ip,nw_proto=4/4",
     "nw_proto=4/4: the module compares nw_proto without a mask; write "
     "nw_proto=VALUE, one flow for each value"},
    {"icmp,icmp_type=8/8",
     "icmp_type=8/8: the module compares icmp_type without a mask; write "
     "icmp_type=VALUE, one flow for each value"},
    {"ip,nw_tos=5",
     "nw_tos=5: the low two bits are the ECN field; write nw_tos=4,nw_ecn=1"},
    {"tcp,tcp_flags=0x12",
     "tcp_flags=0x12: the module reads the flags fin to cwr, not the four "
     "above them; write tcp_flags=0x12/0xff"},
    {"tcp,tcp_flags=syn|ack",
     "tcp_flags=syn|ack: the module reads the flags fin to cwr, not the four "
     "above them; write tcp_flags=0x12/0xff"},
    {"tcp,tcp_flags=+syn+ns",
     "tcp_flags=+syn+ns: the module reads the flags fin to cwr, not the four "
     "above them; write tcp_flags=0x02/0x02"},
    {"tcp,tcp_flags=-ns",
     "tcp_flags=-ns: the module reads the flags fin to cwr, not the four "
     "above them; leave them out"},
    {"tcp,tcp_flags=0x1000", "tcp_flags=0x1000: 0x1000 is above 4095"},
    {"tcp,tcp_flags=2/0x1000", "tcp_flags=2/0x1000: 0x1000 is above 4095"},
    {"tcp,tcp_flags=0xfff/0xfff",
     "tcp_flags=0xfff/0xfff: the module reads the flags fin to cwr, not the "
     "four above them; write tcp_flags=0xff/0xff"},
    {"tcp,tcp_flags=0x100/0x100",
     "tcp_flags=0x100/0x100: the module reads the flags fin to cwr, not the "
     "four above them; leave them out"},
    {"tcp,tcp_flags=+", "tcp_flags=+: unknown TCP flag \"\""},
    {"tcp,tcp_flags=syn|", "tcp_flags=syn|: unknown TCP flag \"\""},
    {"tcp,tcp_flags=+sin",
     "tcp_flags=+sin: unknown TCP flag \"sin\", did you mean \"fin\"?"},
    {"tcp,tcp_flags=+syn-syn",
     "tcp_flags=+syn-syn: a flag stands there "
     "twice"},
    {"tcp,tcp_flags=0x1000", "tcp_flags=0x1000: 0x1000 is above 4095"},
    {"ip,nw_frag=no",
     "nw_frag=no: the module does not look at fragments and treats them like "
     "any packet"},
    {"ipv6,ipv6_label=5",
     "ipv6_label=5: the module does not read the IPv6 flow label"},
    {"ct_state=+trk", "ct_state=+trk: the module does not track connections"},
    {"reg0=1",
     "reg0=1: the module has no registers; use one table for each value"},
    {"xxreg3=1",
     "xxreg3=1: the module has no registers; use one table for each value"},
    {"conj_id=1", "conj_id=1: the module has no conjunctive matches"},
    {"tun_id=1", "tun_id=1: the module has no tunnels"},
    {"icmp6,nd_target=::1",
     "nd_target=::1: the module does not read neighbour discovery messages"},
    {"mpls,mpls_label=3", "mpls_label=3: the module does not read MPLS labels"},
};

class MatchRefusal : public testing::TestWithParam<RefusalCase> {};

TEST_P(MatchRefusal, SaysWhy) {
  EXPECT_EQ(refusalOf(std::string(GetParam().text) + " actions=drop"),
            GetParam().reason);
}

INSTANTIATE_TEST_SUITE_P(Fields, MatchRefusal, testing::ValuesIn(kCases));

}  // namespace
}  // namespace ofswitch
