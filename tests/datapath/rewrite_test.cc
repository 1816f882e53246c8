// SPDX-License-Identifier: BSD-3-Clause
//
// Header rewrites. Most rows build the expected frame in words, checksums
// included: an incremental update has to arrive where a fresh sender would.
// Where the two differ by design the row writes the bytes out.
#include "tests/datapath/datapath_test.h"

namespace openflow_test {
namespace {

struct RewriteCase {
  const char* name;
  Flow flow;
  InputPacket packet;
  Bytes expected;
  bool checksumsHold = true;
};

void PrintTo(const RewriteCase& row, std::ostream* out) {
  *out << row.packet << "expected\n" << hexDump(row.expected);
}

class Rewrite : public DataPath,
                public ::testing::WithParamInterface<RewriteCase> {};

TEST_P(Rewrite, GivesTheFrame) {
  const RewriteCase& row = GetParam();
  Flow flow = row.flow;
  add(0, {flow.counters(kPackets, kByteCount).output({2})});
  const RunResult result = run({row.packet});
  ASSERT_EQ(result.gate(2).size(), 1u);
  EXPECT_EQ(hexDump(result.gate(2)[0].bytes), hexDump(row.expected));
  EXPECT_EQ(result.gate(2)[0].meta.flags, 0u);
  EXPECT_EQ(result.drops, 1u);
  EXPECT_TRUE(result.tables.empty());
  EXPECT_EQ(result.flowCounters.at(kPackets), 1u);
  // The length counted is the one received.
  const size_t received = row.packet.bytes.size();
  EXPECT_EQ(harness().flowCounter(kByteCount) > 0, received > 0);
  if (received > 0) {
    EXPECT_EQ(result.flowCounters.at(kByteCount), received);
  }
  if (row.checksumsHold) {
    EXPECT_EQ(checksumError(result.gate(2)[0].bytes), "");
  }
}

Flow any() { return Flow(1, 10); }

// Frames under test, by what they carry.
Frame tcp4() {
  return Frame::eth().ipv4(kIpA, kIpB).tcp(7, 80).payload("data");
}
Frame udp4() {
  return Frame::eth().ipv4(kIpA, kIpB).udp(7, 80).payload("data");
}
Frame icmp4(uint8_t type, uint8_t code) {
  return Frame::eth().ipv4(kIpA, kIpB).icmp(type, code).payload("data");
}
Frame tcp6() {
  return Frame::eth()
      .ipv6(kIp6A, kIp6B)
      .flowLabel(0xabcde)
      .tcp(7, 80)
      .payload("data");
}
Frame udp6() { return Frame::eth().ipv6(kIp6A, kIp6B).udp(7, 80).payload("x"); }
Frame icmp6(uint8_t type, uint8_t code) {
  return Frame::eth().ipv6(kIp6A, kIp6B).icmp(type, code).payload("data");
}

InputPacket headroom(size_t bytes, Frame frame) {
  InputPacket packet(frame);
  packet.headroom = bytes;
  return packet;
}

const uint32_t kNewIp = ip4("192.168.77.9");
const Mac kNewMac = mac("02:11:22:33:44:55");

Flow withMacBytes(const std::string& dst, const std::string& src) {
  Flow flow = any().setEthDst(kNewMac).setEthSrc(kNewMac);
  auto* values = flow.message().mutable_action()->mutable_values();
  values->set_ethdst(dst);
  values->set_ethsrc(src);
  return flow;
}

const RewriteCase kLayer2Cases[] = {
    {"NoneAtAll", any(), tcp4(), tcp4()},
    {"PopUntagged", any().popVlan(), tcp4(), tcp4()},
    {"Pop", any().popVlan(), Frame(tcp4()).vlan(5, 3), tcp4()},
    {"PopServiceTag", any().popVlan(), Frame(tcp4()).qinq(5), tcp4()},
    {"PopOuterOfTwo", any().popVlan(), Frame(tcp4()).qinq(5).vlan(6),
     Frame(tcp4()).vlan(6)},
    {"PopOtherTagType", any().popVlan(), Frame(tcp4()).tag(0x9100, 5),
     Frame(tcp4()).tag(0x9100, 5)},
    {"PopBehindSnapIsNoTag", any().popVlan(), Frame(tcp4()).snap().vlan(5),
     Frame(tcp4()).snap().vlan(5)},
    {"SetVidUntaggedPushes", any().setVlanVid(100), tcp4(),
     Frame(tcp4()).vlan(100)},
    {"SetVidKeepsPcpAndDei", any().setVlanVid(100),
     Frame(tcp4()).vlan(5, 6, true), Frame(tcp4()).vlan(100, 6, true)},
    {"SetVidIsNotLimited", any().setVlanVid(0xf064),
     Frame(tcp4()).tag(0x8100, 0x2fff), Frame(tcp4()).tag(0x8100, 0xf064)},
    {"PushedVidIsNotLimited", any().setVlanVid(0xf064), tcp4(),
     Frame(tcp4()).tag(0x8100, 0xf064)},
    {"SetVidLow16Bits", any().setVlanVid(0x10005), tcp4(),
     Frame(tcp4()).vlan(5)},
    {"SetVidOnServiceTagPushes", any().setVlanVid(100), Frame(tcp4()).qinq(5),
     Frame(tcp4()).vlan(100).qinq(5)},
    {"PushBeforeSnap", any().setVlanVid(100),
     Frame::eth().snap().ethType(0x88b5).payload(60),
     Frame::eth().vlan(100).snap().ethType(0x88b5).payload(60)},
    {"PushIntoLastHeadroom", any().setVlanVid(100), headroom(4, tcp4()),
     Frame(tcp4()).vlan(100)},
    {"PushWithoutHeadroom", any().setVlanVid(100), headroom(3, tcp4()), tcp4()},
    {"PushWithoutHeadroomThenNoPcp", any().setVlanVid(100).setVlanPcp(3),
     headroom(0, tcp4()), tcp4()},
    {"SetVidTaggedNeedsNoHeadroom", any().setVlanVid(100),
     headroom(0, Frame(tcp4()).vlan(5)), Frame(tcp4()).vlan(100)},
    {"PopGivesHeadroomToPush", any().popVlan().setVlanVid(100),
     headroom(0, Frame(tcp4()).vlan(5, 6)), Frame(tcp4()).vlan(100)},
    {"PopThenSetVidPushesPcpZero", any().popVlan().setVlanVid(100),
     Frame(tcp4()).vlan(5, 6), Frame(tcp4()).vlan(100)},
    {"PopThenSetVidOfInnerTag", any().popVlan().setVlanVid(100),
     Frame(tcp4()).vlan(5, 6).vlan(6, 2), Frame(tcp4()).vlan(100, 2)},
    {"SetPcpUntagged", any().setVlanPcp(3), tcp4(), tcp4()},
    {"SetPcp", any().setVlanPcp(3), Frame(tcp4()).vlan(5, 6, true),
     Frame(tcp4()).vlan(5, 3, true)},
    {"SetPcpNineIsOne", any().setVlanPcp(9), Frame(tcp4()).vlan(5, 6),
     Frame(tcp4()).vlan(5, 1)},
    // A tag control of 0 is a tag all the same.
    {"PopNullTag", any().popVlan(), Frame(tcp4()).vlan(0), tcp4()},
    {"SetVidOfNullTag", any().setVlanVid(100), Frame(tcp4()).vlan(0),
     Frame(tcp4()).vlan(100)},
    {"SetVidOfPriorityTag", any().setVlanVid(100), Frame(tcp4()).vlan(0, 5),
     Frame(tcp4()).vlan(100, 5)},
    {"SetVidZero", any().setVlanVid(0), Frame(tcp4()).vlan(5, 3),
     Frame(tcp4()).vlan(0, 3)},
    {"SetVidZeroOverAllOnes", any().setVlanVid(0),
     Frame(tcp4()).vlan(0xfff, 7, true), Frame(tcp4()).vlan(0, 7, true)},
    {"SetVidAllOnesKeepsZeros", any().setVlanVid(0xfff), Frame(tcp4()).vlan(0),
     Frame(tcp4()).vlan(0xfff)},
    {"SetVidZeroUntaggedPushes", any().setVlanVid(0), tcp4(),
     Frame(tcp4()).vlan(0)},
    {"SetPcpOfNullTag", any().setVlanPcp(3), Frame(tcp4()).vlan(0),
     Frame(tcp4()).vlan(0, 3)},
    {"SetPcpZero", any().setVlanPcp(0), Frame(tcp4()).vlan(5, 7, true),
     Frame(tcp4()).vlan(5, 0, true)},
    {"SetPcpServiceTag", any().setVlanPcp(3), Frame(tcp4()).qinq(5, 6),
     Frame(tcp4()).qinq(5, 6)},
    {"PushAndPcp", any().setVlanVid(100).setVlanPcp(3), tcp4(),
     Frame(tcp4()).tag(0x8100, 0x6064)},
    {"PopThenPcpUntagged", any().popVlan().setVlanPcp(3),
     Frame(tcp4()).vlan(5, 6), tcp4()},
    {"SetEthDst", any().setEthDst(kNewMac), tcp4(),
     Frame::eth(kNewMac).ipv4(kIpA, kIpB).tcp(7, 80).payload("data")},
    {"SetEthSrc", any().setEthSrc(kNewMac), tcp4(),
     Frame::eth(kDstMac, kNewMac).ipv4(kIpA, kIpB).tcp(7, 80).payload("data")},
    {"PushAndMacs", any().setVlanVid(9).setEthDst(kNewMac).setEthSrc(kSrcMac),
     tcp4(),
     Frame::eth(kNewMac, kSrcMac)
         .vlan(9)
         .ipv4(kIpA, kIpB)
         .tcp(7, 80)
         .payload("data")},
    {"ShortMacsArePadded", withMacBytes("\x02\x11", ""), tcp4(),
     Frame::eth(mac("02:11:00:00:00:00"), Mac{})
         .ipv4(kIpA, kIpB)
         .tcp(7, 80)
         .payload("data")},
    {"LongMacsAreCut",
     withMacBytes("\x02\x11\x22\x33\x44\x55\x66\x77", "abcdefgh"), tcp4(),
     Frame::eth(kNewMac, mac("61:62:63:64:65:66"))
         .ipv4(kIpA, kIpB)
         .tcp(7, 80)
         .payload("data")},
    {"MacsOfLlcFrame", any().setEthDst(kNewMac).decTtl(),
     Frame::eth().llc(0x42, 0x42).payload(40),
     Frame::eth(kNewMac).llc(0x42, 0x42).payload(40)},
};

const RewriteCase kIpv4Cases[] = {
    {"DecTtl", any().decTtl(), tcp4(), Frame(tcp4()).ttl(63)},
    {"DecTtlOneForwardsZero", any().decTtl(), Frame(tcp4()).ttl(1),
     Frame(tcp4()).ttl(0)},
    {"DecTtlZeroWraps", any().decTtl(), Frame(tcp4()).ttl(0),
     Frame(tcp4()).ttl(255)},
    {"DecTtlTagged", any().decTtl(), Frame(tcp4()).vlan(5),
     Frame(tcp4()).vlan(5).ttl(63)},
    {"DecTtlBehindPushedTag", any().setVlanVid(5).decTtl(), tcp4(),
     Frame(tcp4()).vlan(5).ttl(63)},
    {"DecTtlBehindPoppedTag", any().popVlan().decTtl(), Frame(tcp4()).qinq(5),
     Frame(tcp4()).ttl(63)},
    {"NotBehindServiceTag", any().decTtl(), Frame(tcp4()).qinq(5),
     Frame(tcp4()).qinq(5)},
    {"NotBehindSecondTag", any().decTtl(), Frame(tcp4()).vlan(5).vlan(6),
     Frame(tcp4()).vlan(5).vlan(6)},
    {"NotBehindSnap", any().decTtl(), Frame(tcp4()).snap(),
     Frame(tcp4()).snap()},
    {"SetTos", any().setIpTos(0xb9), tcp4(), Frame(tcp4()).tos(0xb9)},
    {"SetTosOverAllOnes", any().setIpTos(0), Frame(tcp4()).tos(0xff), tcp4()},
    {"SetTosOverOthers", any().setIpTos(0x28), Frame(tcp4()).tos(0xd3),
     Frame(tcp4()).tos(0x28)},
    {"SetTosLow8Bits", any().setIpTos(0x1b9), tcp4(), Frame(tcp4()).tos(0xb9)},
    {"SetSrcTcp", any().setIpv4Src(kNewIp), tcp4(),
     Frame::eth().ipv4(kNewIp, kIpB).tcp(7, 80).payload("data")},
    {"SetDstTcp", any().setIpv4Dst(kNewIp), tcp4(),
     Frame::eth().ipv4(kIpA, kNewIp).tcp(7, 80).payload("data")},
    {"SetBothUdp", any().setIpv4Src(kNewIp).setIpv4Dst(kIpA), udp4(),
     Frame::eth().ipv4(kNewIp, kIpA).udp(7, 80).payload("data")},
    {"SwapAddresses", any().setIpv4Src(kIpB).setIpv4Dst(kIpA), udp4(),
     Frame::eth().ipv4(kIpB, kIpA).udp(7, 80).payload("data")},
    {"SetAddressesOverAllOnes", any().setIpv4Src(0).setIpv4Dst(kIpB),
     Frame::eth().ipv4(0xffffffff, 0xffffffff).udp(7, 80),
     Frame::eth().ipv4(0, kIpB).udp(7, 80)},
    {"SetAddressesOverAllZeros",
     any().setIpv4Src(0xffffffff).setIpv4Dst(0xfffffffe),
     Frame::eth().ipv4(0, 0).tcp(7, 80),
     Frame::eth().ipv4(0xffffffff, 0xfffffffe).tcp(7, 80)},
    {"SetSrcIcmpLeavesL4", any().setIpv4Src(kNewIp), icmp4(8, 0),
     Frame::eth().ipv4(kNewIp, kIpB).icmp(8, 0).payload("data")},
    {"SetSrcUdpWithoutChecksum", any().setIpv4Src(kNewIp),
     Frame(udp4()).udpNoChecksum(),
     Frame::eth()
         .ipv4(kNewIp, kIpB)
         .udp(7, 80)
         .udpNoChecksum()
         .payload("data")},
    {"SetSrcOtherProtocol", any().setIpv4Src(kNewIp).setL4SrcPort(9),
     Frame::eth().ipv4(kIpA, kIpB).proto(47).payload(40),
     Frame::eth().ipv4(kNewIp, kIpB).proto(47).payload(40)},
    {"OptionsAreSummed", any().decTtl().setIpv4Dst(kNewIp),
     Frame(tcp4()).options(15),
     Frame::eth()
         .ipv4(kIpA, kNewIp)
         .options(15)
         .tcp(7, 80)
         .payload("data")
         .ttl(63)},
    {"OddPayload", any().setIpv4Dst(kNewIp).setL4DstPort(443),
     Frame(udp4()).payload("odd"),
     Frame::eth().ipv4(kIpA, kNewIp).udp(7, 443).payload("odd")},
    {"Everything",
     any()
         .decTtl()
         .setIpTos(1)
         .setIpv4Src(kNewIp)
         .setIpv4Dst(kIpA)
         .setL4SrcPort(0xffff)
         .setL4DstPort(0),
     tcp4(),
     Frame::eth()
         .ipv4(kNewIp, kIpA)
         .tcp(0xffff, 0)
         .payload("data")
         .tos(1)
         .ttl(63)},
    {"BadHeaderChecksumIsMended", any().decTtl(),
     Frame(tcp4()).patch(24, {0xde, 0xad}), Frame(tcp4()).ttl(63)},
    {"BadHeaderChecksumStays", any().setL4SrcPort(7).setEthDst(kNewMac),
     Frame(tcp4()).patch(24, {0xde, 0xad}),
     Frame::eth(kNewMac)
         .ipv4(kIpA, kIpB)
         .tcp(7, 80)
         .payload("data")
         .patch(24, {0xde, 0xad}),
     false},
    {"LaterFragmentLikeAny", any().setL4SrcPort(9),
     Frame::eth().ipv4(kIpA, kIpB).proto(17).fragment(100, true).payload(40),
     Frame::eth()
         .ipv4(kIpA, kIpB)
         .proto(17)
         .fragment(100, true)
         .payload(40)
         // the word at 6 was 0x0607; source 0x0001 became 0x0009
         .patch(34, {0x00, 0x09})
         .patch(40, {0x05, 0xff})},
    {"ArpHasNoIp", any().decTtl().setIpv4Src(kNewIp).setL4SrcPort(1),
     Frame::eth().arp(kIpA, kIpB), Frame::eth().arp(kIpA, kIpB)},
};

const RewriteCase kL4Cases[] = {
    {"SetL4SrcTcp", any().setL4SrcPort(9), tcp4(),
     Frame::eth().ipv4(kIpA, kIpB).tcp(9, 80).payload("data")},
    {"SetL4DstTcp", any().setL4DstPort(443), tcp4(),
     Frame::eth().ipv4(kIpA, kIpB).tcp(7, 443).payload("data")},
    {"SetL4Low16Bits", any().setL4DstPort(0x101bb), tcp4(),
     Frame::eth().ipv4(kIpA, kIpB).tcp(7, 443).payload("data")},
    {"SetL4Udp", any().setL4SrcPort(9).setL4DstPort(53), udp4(),
     Frame::eth().ipv4(kIpA, kIpB).udp(9, 53).payload("data")},
    {"SetL4UdpWithoutChecksum", any().setL4DstPort(53),
     Frame(udp4()).udpNoChecksum(),
     Frame::eth().ipv4(kIpA, kIpB).udp(7, 53).udpNoChecksum().payload("data")},
    {"SetL4Options", any().setL4DstPort(443), Frame(tcp4()).options(7),
     Frame::eth().ipv4(kIpA, kIpB).options(7).tcp(7, 443).payload("data")},
    {"SetL4SrcIpv6Tcp", any().setL4SrcPort(9), tcp6(),
     Frame(tcp6()).tcp(9, 80)},
    {"SetL4DstIpv6Udp", any().setL4DstPort(53), udp6(),
     Frame(udp6()).udp(7, 53)},
    {"SetL4SamePort", any().setL4DstPort(80), tcp4(), tcp4()},
    {"SetIcmpType", any().setIcmpType(0), icmp4(8, 0), icmp4(0, 0)},
    {"SetIcmpCode", any().setIcmpCode(13), icmp4(3, 1), icmp4(3, 13)},
    {"SetIcmpBoth", any().setIcmpType(3).setIcmpCode(0x1ff), icmp4(8, 0),
     icmp4(3, 0xff)},
    {"SetIcmpOverAllOnes", any().setIcmpType(0).setIcmpCode(0), icmp4(255, 255),
     icmp4(0, 0)},
    {"SetL4OverAllOnes", any().setL4SrcPort(0).setL4DstPort(1),
     Frame(udp4()).udp(0xffff, 0xffff), Frame(udp4()).udp(0, 1)},
    {"SetIcmpSame", any().setIcmpType(8).setIcmpCode(0),
     icmp4(8, 0).patch(36, {0xde, 0xad}), icmp4(8, 0).patch(36, {0xde, 0xad}),
     false},
    {"SetIcmpv6", any().setIcmpType(129).setIcmpCode(1), icmp6(128, 0),
     icmp6(129, 1)},
    {"IcmpIgnoresPorts", any().setL4SrcPort(1).setL4DstPort(2), icmp4(8, 0),
     icmp4(8, 0)},
    {"TcpIgnoresIcmp", any().setIcmpType(1).setIcmpCode(2), tcp4(), tcp4()},
    {"Icmpv6OverIpv4IsNone", any().setIcmpType(1), Frame(icmp4(8, 0)).proto(58),
     Frame(icmp4(8, 0)).proto(58)},
    {"IcmpOverIpv6IsNone", any().setIcmpType(1), Frame(icmp6(8, 0)).proto(1),
     Frame(icmp6(8, 0)).proto(1)},
};

const RewriteCase kIpv6Cases[] = {
    {"DecHopLimit", any().decTtl(), tcp6(), Frame(tcp6()).ttl(63)},
    {"DecHopLimitOne", any().decTtl(), Frame(tcp6()).ttl(1),
     Frame(tcp6()).ttl(0)},
    {"DecHopLimitZeroWraps", any().decTtl(), Frame(tcp6()).ttl(0),
     Frame(tcp6()).ttl(255)},
    {"DecHopLimitTagged", any().decTtl(), Frame(tcp6()).vlan(5),
     Frame(tcp6()).vlan(5).ttl(63)},
    {"SetTrafficClassKeepsLabel", any().setIpTos(0xb9), tcp6(),
     Frame(tcp6()).tos(0xb9)},
    {"SetTrafficClassOverAllOnes", any().setIpTos(0), Frame(tcp6()).tos(0xff),
     tcp6()},
    {"SetTrafficClassKeepsALabelOfOnes", any().setIpTos(0),
     Frame(tcp6()).flowLabel(0xfffff).tos(0xff),
     Frame(tcp6()).flowLabel(0xfffff)},
    {"SetTrafficClassKeepsALabelOfZeros", any().setIpTos(0xff),
     Frame(tcp6()).flowLabel(0), Frame(tcp6()).flowLabel(0).tos(0xff)},
    {"AddressesStay", any().setIpv4Src(kNewIp).setIpv4Dst(kNewIp), tcp6(),
     tcp6()},
    {"HopByHopHasNoPorts", any().setL4SrcPort(9), Frame(tcp6()).hopByHop(),
     Frame(tcp6()).hopByHop()},
};

INSTANTIATE_TEST_SUITE_P(Layer2, Rewrite, ::testing::ValuesIn(kLayer2Cases),
                         rowName);
INSTANTIATE_TEST_SUITE_P(Ipv4, Rewrite, ::testing::ValuesIn(kIpv4Cases),
                         rowName);
INSTANTIATE_TEST_SUITE_P(Ipv6, Rewrite, ::testing::ValuesIn(kIpv6Cases),
                         rowName);
INSTANTIATE_TEST_SUITE_P(L4, Rewrite, ::testing::ValuesIn(kL4Cases), rowName);

}  // namespace
}  // namespace openflow_test
