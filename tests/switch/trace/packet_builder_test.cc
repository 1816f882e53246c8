// SPDX-License-Identifier: BSD-3-Clause
#include "switch/trace/packet_builder.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "switch/flow/match_parser.h"
#include "switch/flow/words.h"
#include "switch/trace/key_fields.h"
#include "switch/trace/packet_key.h"
#include "tests/support/bytes.h"
#include "tests/support/checksum.h"
#include "tests/support/frame.h"

namespace ofswitch {
namespace {

using openflow_test::Bytes;
using openflow_test::Frame;
using openflow_test::hex;
using openflow_test::ip6;
using openflow_test::mac;

Match parse(const std::string& text) { return parseMatch(splitWords(text)); }

Bytes built(const std::string& text) {
  const std::string frame = buildFrame(parse(text));
  return {frame.begin(), frame.end()};
}

// Frames shorter than Ethernet's least are filled up.
std::string padded(const Frame& frame) {
  Bytes bytes = frame.bytes();
  bytes.resize(std::max<size_t>(bytes.size(), 60));
  return hex(bytes);
}

Frame eth() {
  return Frame::eth(mac("02:00:00:00:00:02"), mac("02:00:00:00:00:01"));
}

// Checksums are looked after below.
TEST(PacketBuilder, FramesOfEachProtocol) {
  EXPECT_EQ(hex(built("udp,nw_dst=10.0.0.0/8,tp_dst=53,dl_vlan=7")),
            "020000000002020000000001810000070800"
            "4500001c000000004011accec00002010a000202"
            "c0000035000871a5" +
                std::string(28, '0'));
  EXPECT_EQ(hex(built("ip,nw_proto=47,nw_ttl=3,nw_tos=64")),
            "0200000000020200000000010800"
            "4540001400000000032f3378c0000201c0000202" +
                std::string(52, '0'));
  EXPECT_EQ(hex(built("icmp,icmp_type=3,icmp_code=1")),
            "0200000000020200000000010800"
            "4500003c000000004001f6bdc0000201c0000202"
            "0301fcfe" +
                std::string(72, '0'));
  EXPECT_EQ(hex(built("icmp6,ipv6_src=fe80::1")),
            "02000000000202000000000186dd6000000000283a40"
            "fe80000000000000000000000000000120010db8000000000000000000000002"
            "80005360" +
                std::string(72, '0'));
  EXPECT_EQ(hex(built("udp6,tp_src=1,tp_dst=2,vlan_tci=0xa005/0xefff")),
            padded(eth()
                       .vlan(5, 5)
                       .ipv6(ip6("2001:db8::1"), ip6("2001:db8::2"))
                       .udp(1, 2)));
  EXPECT_EQ(hex(built("arp,arp_tpa=10.0.0.9")).substr(0, 84),
            "ffffffffffff020000000001080600010800060400010200000000"
            "01c00002010000000000000a000009");
  EXPECT_EQ(hex(built("rarp")).substr(0, 84),
            "ffffffffffff020000000001803500010800060400030200000000"
            "01c000020102000000000100000000");
  const std::string tcp = hex(built("tcp,tp_dst=80"));
  EXPECT_EQ(tcp.substr(68, 32), "c000005000000000000000005002ffff");
  EXPECT_EQ(tcp.substr(104), std::string(16, '0'));
  EXPECT_EQ(hex(built("dl_type=0x88cc")).substr(24, 8), "88cc0000");
  EXPECT_EQ(hex(built("in_port=1")).substr(24, 8), "88b50000");
  // Protocols that nothing follows: one for experiments, and no next header.
  EXPECT_EQ(built("ip")[14 + 9], 253);
  EXPECT_EQ(built("ipv6")[14 + 6], 59);
}

// CRC32C of a COOKIE ACK from port 49152 to 49153, worked out bit by bit.
TEST(PacketBuilder, SctpChecksum) {
  const Bytes frame = built("sctp");
  Bytes packet(frame.begin() + 34, frame.begin() + 34 + 16);
  EXPECT_EQ(hex(packet).substr(0, 16), "c000c00100000000") << "the ports";
  EXPECT_EQ(hex(packet).substr(24), "0b000004") << "the chunk";
  const uint32_t sent = packet[8] | packet[9] << 8 | packet[10] << 16 |
                        static_cast<uint32_t>(packet[11]) << 24;
  std::fill_n(packet.begin() + 8, 4, 0);
  uint32_t crc = ~0u;
  for (const uint8_t byte : packet) {
    crc ^= byte;
    for (int bit = 0; bit < 8; bit++) {
      crc = crc >> 1 ^ (crc & 1 ? 0x82f63b78u : 0u);
    }
  }
  EXPECT_EQ(sent, ~crc);
  EXPECT_EQ(frame[23], 132);
}

class Built : public ::testing::TestWithParam<const char*> {};

TEST_P(Built, MatchesItsTextWithGoodChecksums) {
  const Bytes frame = built(GetParam());
  EXPECT_EQ(openflow_test::checksumError(frame), "") << hex(frame);
  const Match match = parse(GetParam());
  EXPECT_EQ(
      differences(match, packetKey(std::string(frame.begin(), frame.end()), 1)),
      std::vector<FieldDifference>{});
  EXPECT_GE(frame.size(), 60u);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, Built,
    ::testing::Values("in_port=1", "tcp", "udp", "icmp", "tcp6", "udp6",
                      "icmp6,icmp_type=135", "ip", "ipv6", "arp", "rarp",
                      "tcp,tcp_flags=+syn-ack", "tcp,tcp_flags=-syn",
                      "tcp,tp_src=1,tp_dst=65535,nw_ttl=0,nw_ecn=3",
                      "dl_src=01:00:00:00:00:00/01:00:00:00:00:00",
                      "dl_vlan_pcp=3,udp", "vlan_tci=0x0000/0x0fff,tcp",
                      "ipv6,ipv6_src=2001:db8:1::/48,nw_proto=43",
                      "ip,nw_src=10.0.0.5/255.0.0.255,nw_ttl=4/0x0f",
                      "tcp6,nw_ttl=3,nw_tos=64,nw_ecn=1", "udp6,nw_ttl=4/0x0f",
                      "dl_type=0x8847", "sctp", "sctp6"));

}  // namespace
}  // namespace ofswitch
