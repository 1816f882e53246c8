// SPDX-License-Identifier: BSD-3-Clause
//
// The lookup keys of frames. A row states what every field of both keys holds:
// their bytes, and the flow that matches all their fields exactly.
#include "modules/openflow/datapath/build_key.h"
#include "tests/datapath/key_fields.h"
#include "tests/support/reference_keys.h"

namespace openflow_test {
namespace {

struct KeyCase {
  const char* name;
  InputPacket packet;
  KeyFields key;
};

void PrintTo(const KeyCase& row, std::ostream* out) { *out << row.packet; }

class Keys : public DataPath, public ::testing::WithParamInterface<KeyCase> {
 protected:
  void expectHit(Family family) {
    add(0, {exactFlow(GetParam().key, family)}, family);
    const OutputPacket out = runOne(GetParam().packet, 2);
    EXPECT_EQ(out.bytes, GetParam().packet.bytes);
    EXPECT_EQ(out.meta.flags, 0u);
  }
};

// Both keys of a packet, in buffers that held something else.
struct BuiltKeys {
  Bytes ipv4 = Bytes(sizeof(OfIpv4Key), 0x5a);
  Bytes ipv6 = Bytes(sizeof(OfIpv6Key), 0x5a);
};

template <bool kIpv4, bool kIpv6>
BuiltKeys build(const InputPacket& packet) {
  Bytes frame = packet.bytes;
  frame.resize(std::max(frame.size(), kFrameWindow), packet.fill);
  const bool valid = packet.meta.flags & MetadataBlock::kMetadataValid;
  BuiltKeys keys;
  buildKeys<kIpv4, kIpv6>(frame.data(), valid ? packet.meta.metadata : 0,
                          reinterpret_cast<OfIpv4Key*>(keys.ipv4.data()),
                          reinterpret_cast<OfIpv6Key*>(keys.ipv6.data()));
  return keys;
}

TEST_P(Keys, Bytes) {
  const BuiltKeys keys = build<true, true>(GetParam().packet);
  EXPECT_EQ(hexDump(keys.ipv4), hexDump(ipv4KeyBytes(GetParam().key)));
  EXPECT_EQ(hexDump(keys.ipv6), hexDump(ipv6KeyBytes(GetParam().key)));
}

TEST_P(Keys, BytesOfOneFamily) {
  const BuiltKeys ipv4 = build<true, false>(GetParam().packet);
  EXPECT_EQ(hexDump(ipv4.ipv4), hexDump(ipv4KeyBytes(GetParam().key)));
  EXPECT_EQ(hexDump(ipv4.ipv6), hexDump(BuiltKeys().ipv6));
  const BuiltKeys ipv6 = build<false, true>(GetParam().packet);
  EXPECT_EQ(hexDump(ipv6.ipv6), hexDump(ipv6KeyBytes(GetParam().key)));
  EXPECT_EQ(hexDump(ipv6.ipv4), hexDump(BuiltKeys().ipv4));
}

TEST_P(Keys, BytesOfTheTwin) {
  const ReferenceKeys keys = referenceKeys(ReferencePacket(GetParam().packet));
  EXPECT_EQ(hexDump({keys.ipv4.begin(), keys.ipv4.end()}),
            hexDump(ipv4KeyBytes(GetParam().key)));
  EXPECT_EQ(hexDump({keys.ipv6.begin(), keys.ipv6.end()}),
            hexDump(ipv6KeyBytes(GetParam().key)));
}

TEST_P(Keys, Ipv4Key) { expectHit(Family::kIpv4); }

TEST_P(Keys, Ipv6Key) { expectHit(Family::kIpv6); }

const InputPacket withMetadata(Frame frame, MetadataBlock block) {
  return InputPacket(frame, block);
}

const uint64_t kMetadata = 0x1122334455667788;

KeyFields tagged(KeyFields key, uint16_t tci) {
  key.vlanTci = tci;
  return key;
}

KeyFields marked(KeyFields key, uint64_t metadata) {
  key.metadata = metadata;
  return key;
}

const Layers kUdpLayers = {.proto = 17, .ttl = 64, .l4Src = 7, .l4Dst = 80};

// What lies behind a cut frame in its buffer.
constexpr uint8_t kBehind = 0xee;

const KeyCase kCutRows[] = {
    {"CutBehindTcpPort", Frame(kTcp4).keep(14 + 20 + 2),
     key4({.proto = 6,
           .ttl = 64,
           .l4Src = 7,
           .l4Dst = 0xeeee,
           .tcpFlags = kBehind})},
    {"CutBehindTcpFlags", Frame(kTcp4).keep(14 + 20 + 14), key4(kTcpLayers)},
    {"CutBehindIpv4Header", Frame(kTcp4).keep(14 + 20),
     key4({.proto = 6,
           .ttl = 64,
           .l4Src = 0xeeee,
           .l4Dst = 0xeeee,
           .tcpFlags = kBehind})},
    {"CutInIpv4Source",
     Frame(kTcp4).keep(14 + 14),
     {.ethType = 0x0800,
      .ipv4 = {.proto = 6,
               .ttl = 64,
               .l4Src = 0xeeee,
               .l4Dst = 0xeeee,
               .tcpFlags = kBehind},
      .ipv4Src = 0x0a00eeee,
      .ipv4Dst = 0xeeeeeeee}},
    {"CutInUdpPorts",
     Frame::eth().ipv4(kIpA, kIpB).udp(7, 80).keep(14 + 20 + 3),
     key4({.proto = 17, .ttl = 64, .l4Src = 7, .l4Dst = 0x00ee})},
    {"CutBehindIcmpType",
     Frame::eth().ipv4(kIpA, kIpB).icmp(8, 0).keep(14 + 20 + 1),
     key4({.proto = 1, .ttl = 64, .icmpType = 8, .icmpCode = kBehind})},
    {"CutInIpv6Destination",
     Frame(kTcp6).keep(14 + 38),
     {.ethType = 0x86dd,
      .ipv6 = {.proto = 6,
               .ttl = 64,
               .l4Src = 0xeeee,
               .l4Dst = 0xeeee,
               .tcpFlags = kBehind},
      .ipv6Src = kIp6A,
      .ipv6Dst = ip6("2001:db8::eeee")}},
    {"CutBehindTag", Frame::eth().vlan(5).ipv4(kIpA, kIpB).keep(16),
     tagged({.ethType = 0xeeee}, 5)},
    {"CutBehindSource", Frame(kTcp4).keep(12), {.ethType = 0xeeee}},
    {"CutInArpTarget",
     Frame::eth().arp(kIpA, ip4("10.0.0.7")).keep(14 + 26),
     {.ethType = 0x0806, .arpTpa = 0x0a00eeee}},
    {"OneByte",
     Frame(kTcp4).keep(1),
     {.ethType = 0xeeee,
      .ethDst = mac("02:ee:ee:ee:ee:ee"),
      .ethSrc = mac("ee:ee:ee:ee:ee:ee")}},
    {"Empty",
     InputPacket(Bytes{}),
     {.ethType = 0xeeee,
      .ethDst = mac("ee:ee:ee:ee:ee:ee"),
      .ethSrc = mac("ee:ee:ee:ee:ee:ee")}},
};

const KeyCase kLayer2Rows[] = {
    {"Untagged", kTcp4, key4(kTcpLayers)},
    {"Tagged", Frame::eth().vlan(5).ipv4(kIpA, kIpB).tcp(7, 80, 0x12),
     tagged(key4(kTcpLayers), 5)},
    {"TaggedWithPriority",
     Frame::eth().vlan(100, 5, true).ipv4(kIpA, kIpB).tcp(7, 80, 0x12),
     tagged(key4(kTcpLayers), 0xb064)},
    {"TwoTags", Frame::eth().vlan(5).vlan(6).ipv4(kIpA, kIpB).tcp(7, 80),
     tagged({.ethType = 0x8100}, 5)},
    {"ServiceTag",
     Frame::eth().qinq(5).vlan(6).ipv4(kIpA, kIpB).tcp(7, 80),
     {.ethType = 0x88a8}},
    {"ServiceTagInside", Frame::eth().vlan(5).qinq(6).ipv4(kIpA, kIpB),
     tagged({.ethType = 0x88a8}, 5)},
    {"Snap", Frame::eth().snap().ipv4(kIpA, kIpB).tcp(7, 80, 0x12),
     key4(kTcpLayers)},
    {"SnapAnyControl",
     Frame::eth().snap(0x7f).ipv4(kIpA, kIpB).tcp(7, 80, 0x12),
     key4(kTcpLayers)},
    {"SnapThenTag", Frame::eth().snap().vlan(5).ipv6(kIp6A, kIp6B).udp(7, 80),
     tagged(key6(kUdpLayers), 5)},
    {"SnapThenLength",
     Frame::eth().snap().snap().ipv4(kIpA, kIpB).tcp(7, 80),
     {.ethType = 20 + 20 + 8}},
    {"SnapOtherOui", Frame::eth().snap(3, 0x0000f8).ipv4(kIpA, kIpB), {}},
    {"SnapOuiFirstByte", Frame::eth().snap(3, 0x010000).ipv4(kIpA, kIpB), {}},
    {"SnapOuiSecondByte", Frame::eth().snap(3, 0x000100).ipv4(kIpA, kIpB), {}},
    {"LlcOnly", Frame::eth().llc(0x42, 0x42).payload(35), {}},
    // But for one byte, a type and a header would follow.
    {"SnapOtherDestination",
     Frame::eth().snap().ipv4(kIpA, kIpB).patch(14, {0xab}),
     {}},
    {"SnapOtherSource",
     Frame::eth().snap().ipv4(kIpA, kIpB).patch(15, {0xab}),
     {}},
    {"TagThenLength", Frame::eth().vlan(5).snap().ipv4(kIpA, kIpB).tcp(7, 80),
     tagged({.ethType = 8 + 20 + 20}, 5)},
    {"LargestLength", Frame::eth().ethType(0x05ff).payload(60), {}},
    {"SmallestType",
     Frame::eth().ethType(0x0600).payload(60),
     {.ethType = 0x0600}},
    {"LengthZero", Frame::eth().ethType(0).payload(60), {}},
    // One bit from a type, before what looks like its header.
    {"NearlyIpv4",
     Frame::eth().ipv4(kIpA, kIpB).tcp(7, 80).patch(12, {0x08, 0x01}),
     {.ethType = 0x0801}},
    {"NearlyIpv4InTheFirstByte",
     Frame::eth().ipv4(kIpA, kIpB).tcp(7, 80).patch(12, {0x09, 0x00}),
     {.ethType = 0x0900}},
    {"NearlyIpv6", Frame(kTcp6).patch(12, {0x86, 0xdc}), {.ethType = 0x86dc}},
    {"UnknownType",
     Frame::eth().ethType(0x88b5).payload(60),
     {.ethType = 0x88b5}},
    {"Arp",
     Frame::eth().arp(kIpA, ip4("10.0.0.7")),
     {.ethType = 0x0806, .arpTpa = 0x0a000007}},
    {"ArpReplyTagged", Frame::eth().vlan(5).arp(kIpA, ip4("10.0.0.7"), 2),
     tagged({.ethType = 0x0806, .arpTpa = 0x0a000007}, 5)},
    {"ArpBehindSnap",
     Frame::eth().snap().arp(kIpA, ip4("10.0.0.7")),
     {.ethType = 0x0806, .arpTpa = 0x0a000007}},
};

const Ip6 kIp6Ones = ip6("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff");
const Mac kMacOnes = mac("ff:ff:ff:ff:ff:ff");
const Layers kTcpOnes = {.proto = 6,
                         .tos = 0xff,
                         .ttl = 0xff,
                         .l4Src = 0xffff,
                         .l4Dst = 0xffff,
                         .tcpFlags = 0xff};

Frame allOnes(Frame frame) {
  return frame.tcp(0xffff, 0xffff, 0xff).tos(0xff).ttl(0xff);
}

// Every bit of every field has its place, and takes no other.
const KeyCase kOnesRows[] = {
    {"Ipv4",
     allOnes(Frame::eth(kMacOnes, kMacOnes)
                 .vlan(0xfff, 7, true)
                 .ipv4(0xffffffff, 0xffffffff)),
     {.ethType = 0x0800,
      .vlanTci = 0xffff,
      .ipv4 = kTcpOnes,
      .ipv4Src = 0xffffffff,
      .ipv4Dst = 0xffffffff,
      .ethDst = kMacOnes,
      .ethSrc = kMacOnes}},
    {"Ipv6",
     allOnes(Frame::eth(kMacOnes, kMacOnes)
                 .vlan(0xfff, 7, true)
                 .ipv6(kIp6Ones, kIp6Ones)
                 .flowLabel(0xfffff)),
     {.ethType = 0x86dd,
      .vlanTci = 0xffff,
      .ipv6 = kTcpOnes,
      .ipv6Src = kIp6Ones,
      .ipv6Dst = kIp6Ones,
      .ethDst = kMacOnes,
      .ethSrc = kMacOnes}},
    {"Ipv4Icmp", Frame::eth().ipv4(kIpA, kIpB).icmp(0xff, 0xff),
     key4({.proto = 1, .ttl = 64, .icmpType = 0xff, .icmpCode = 0xff})},
    {"Ipv6Icmp", Frame::eth().ipv6(kIp6A, kIp6B).icmp(0xff, 0xff),
     key6({.proto = 58, .ttl = 64, .icmpType = 0xff, .icmpCode = 0xff})},
    {"Ipv4Protocol", Frame(kTcp4).proto(0xff),
     key4({.proto = 0xff, .ttl = 64})},
    {"Ipv6NextHeader", Frame(kTcp6).proto(0xff),
     key6({.proto = 0xff, .ttl = 64})},
    {"Arp",
     Frame::eth().arp(kIpA, 0xffffffff),
     {.ethType = 0x0806, .arpTpa = 0xffffffff}},
    {"Type", Frame::eth().ethType(0xffff).payload(60), {.ethType = 0xffff}},
    {"Metadata",
     withMetadata(kTcp4, MetadataBlock{}.withMetadata(~uint64_t{0})),
     marked(key4(kTcpLayers), ~uint64_t{0})},
    // The byte in front of the flags has bits of its own.
    {"TcpOffset",
     Frame::eth().ipv4(kIpA, kIpB).tcp(7, 80, 0xff).patch(14 + 20 + 12, {0xff}),
     key4({.proto = 6, .ttl = 64, .l4Src = 7, .l4Dst = 80, .tcpFlags = 0xff})},
    {"TcpOffsetIpv6",
     Frame::eth()
         .ipv6(kIp6A, kIp6B)
         .tcp(7, 80, 0xff)
         .patch(14 + 40 + 12, {0xff}),
     key6({.proto = 6, .ttl = 64, .l4Src = 7, .l4Dst = 80, .tcpFlags = 0xff})},
};

const KeyCase kIpRows[] = {
    // The Ethernet type alone says which header follows.
    {"Ipv4OtherVersion", Frame(kTcp4).patch(14, {0x65}), key4(kTcpLayers)},
    {"Ipv6OtherVersion", Frame(kTcp6).patch(14, {0x40}), key6(kTcpLayers)},
    {"Ipv4TosAndTtl", Frame(kTcp4).tos(0xb9).ttl(3),
     key4({.proto = 6,
           .tos = 0xb9,
           .ttl = 3,
           .l4Src = 7,
           .l4Dst = 80,
           .tcpFlags = 0x12})},
    {"Ipv4Udp", Frame::eth().ipv4(kIpA, kIpB).udp(7, 80).payload(32),
     key4(kUdpLayers)},
    {"Ipv4Icmp", Frame::eth().ipv4(kIpA, kIpB).icmp(8, 3),
     key4({.proto = 1, .ttl = 64, .icmpType = 8, .icmpCode = 3})},
    {"Ipv4ProtocolOfIcmpv6", Frame::eth().ipv4(kIpA, kIpB).icmp(8, 3).proto(58),
     key4({.proto = 58, .ttl = 64})},
    {"Ipv4OtherProtocol", Frame::eth().ipv4(kIpA, kIpB).proto(47).payload(40),
     key4({.proto = 47, .ttl = 64})},
    {"Ipv4Sctp", Frame::eth().ipv4(kIpA, kIpB).udp(7, 80).proto(132),
     key4({.proto = 132, .ttl = 64})},
    {"Ipv4Options6", Frame(kTcp4).options(6), key4(kTcpLayers)},
    {"Ipv4Options15", Frame(kTcp4).options(15), key4(kTcpLayers)},
    {"Ipv4FirstFragment", Frame(kTcp4).fragment(0, true), key4(kTcpLayers)},
    {"Ipv4LaterFragment", Frame(kTcp4).fragment(100, false), key4(kTcpLayers)},
    {"Ipv4HeaderWords0", Frame(kTcp4).rawIhl(0),
     key4({.proto = 6,
           .ttl = 64,
           .l4Src = 0x4000,
           .l4Dst = 0x0028,
           .tcpFlags = 0x00})},
    {"Ipv4HeaderWords4", Frame(kTcp4).rawIhl(4),
     key4({.proto = 6,
           .ttl = 64,
           .l4Src = 0x0a00,
           .l4Dst = 0x0002,
           .tcpFlags = 0x06})},
    {"Ipv6Tcp", kTcp6, key6(kTcpLayers)},
    {"Ipv6UdpTagged", Frame::eth().vlan(5).ipv6(kIp6A, kIp6B).udp(7, 80),
     tagged(key6(kUdpLayers), 5)},
    {"Ipv6ClassAndHops", Frame(kTcp6).tos(0xb9).ttl(3).flowLabel(0xfffff),
     key6({.proto = 6,
           .tos = 0xb9,
           .ttl = 3,
           .l4Src = 7,
           .l4Dst = 80,
           .tcpFlags = 0x12})},
    {"Ipv6Icmp", Frame::eth().ipv6(kIp6A, kIp6B).icmp(128, 3),
     key6({.proto = 58, .ttl = 64, .icmpType = 128, .icmpCode = 3})},
    {"Ipv6ProtocolOfIcmp", Frame::eth().ipv6(kIp6A, kIp6B).icmp(8, 3).proto(1),
     key6({.proto = 1, .ttl = 64})},
    {"Ipv6Sctp", Frame::eth().ipv6(kIp6A, kIp6B).udp(7, 80).proto(132),
     key6({.proto = 132, .ttl = 64})},
    {"Ipv6HopByHop", Frame(kTcp6).hopByHop(), key6({.ttl = 64})},
    {"MetadataValid",
     withMetadata(kTcp4, MetadataBlock{}.withMetadata(kMetadata)),
     marked(key4(kTcpLayers), kMetadata)},
    {"MetadataValidIpv6",
     withMetadata(kTcp6, MetadataBlock{}.withMetadata(kMetadata)),
     marked(key6(kTcpLayers), kMetadata)},
    {"MetadataNotValid",
     withMetadata(kTcp4, MetadataBlock{.metadata = kMetadata}),
     key4(kTcpLayers)},
    {"MetadataOfLlcFrame",
     withMetadata(Frame::eth().llc(0x42, 0x42).payload(40),
                  MetadataBlock{}.withMetadata(kMetadata)),
     marked({}, kMetadata)},
};

INSTANTIATE_TEST_SUITE_P(Cut, Keys, ::testing::ValuesIn(kCutRows), rowName);
INSTANTIATE_TEST_SUITE_P(Layer2, Keys, ::testing::ValuesIn(kLayer2Rows),
                         rowName);
INSTANTIATE_TEST_SUITE_P(Ones, Keys, ::testing::ValuesIn(kOnesRows), rowName);
INSTANTIATE_TEST_SUITE_P(Ip, Keys, ::testing::ValuesIn(kIpRows), rowName);

}  // namespace
}  // namespace openflow_test
