// SPDX-License-Identifier: BSD-3-Clause
#include "modules/flow_hash.h"

#include <gtest/gtest.h>

#include <vector>

#include "tests/support/frame.h"

namespace openflow_test {
namespace {

uint32_t hashOf(const Bytes& bytes) {
  return bess::FlowHash(bytes.data(), static_cast<uint32_t>(bytes.size()));
}

uint32_t hashOf(const Frame& frame) { return hashOf(frame.bytes()); }

const uint32_t kA = ip4("10.0.0.1");
const uint32_t kB = ip4("10.0.0.2");
const Ip6 kA6 = ip6("2001:db8::1");
const Ip6 kB6 = ip6("2001:db8::2");

uint32_t hashOfFirst(const Frame& frame, long bytes) {
  const Bytes whole = frame.bytes();
  return hashOf(Bytes(whole.begin(), whole.begin() + bytes));
}

TEST(FlowHash, SameForAllFramesOfAFlow) {
  EXPECT_EQ(hashOf(Frame::eth().ipv4(kA, kB).tcp(7, 80).payload("a")),
            hashOf(Frame::eth().ipv4(kA, kB).tcp(7, 80, 0x02).payload("bc")));
  EXPECT_EQ(hashOf(Frame::eth().ipv4(kA, kB).udp(7, 80)),
            hashOf(Frame::eth().vlan(5).ipv4(kA, kB).udp(7, 80)));
  EXPECT_EQ(hashOf(Frame::eth().ipv4(kA, kB).udp(7, 80)),
            hashOf(Frame::eth().ipv4(kA, kB).options(8).udp(7, 80)));
  EXPECT_EQ(hashOf(Frame::eth().ipv4(kA, kB).udp(7, 80)),
            hashOf(Frame::eth().qinq(5).vlan(6).ipv4(kA, kB).udp(7, 80)));
  EXPECT_EQ(hashOf(Frame::eth().ipv6(kA6, kB6).udp(7, 80)),
            hashOf(Frame::eth().vlan(5).vlan(6).ipv6(kA6, kB6).udp(7, 80)));
}

// Behind a third tag nobody looks: the MAC addresses are all there is.
TEST(FlowHash, ReadsTwoTags) {
  EXPECT_EQ(
      hashOf(Frame::eth().qinq(5).vlan(6).vlan(7).ipv4(kA, kB).udp(7, 80)),
      hashOf(Frame::eth().arp(kA, kB)));
}

TEST(FlowHash, ReadsEveryByteOfAnAddress) {
  const Ip6 zero = {};
  const uint32_t hash6 = hashOf(Frame::eth().ipv6(zero, zero).tcp(7, 80));
  for (size_t i = 0; i < zero.size(); i++) {
    Ip6 other = {};
    other[i] = 1;
    EXPECT_NE(hash6, hashOf(Frame::eth().ipv6(other, zero).tcp(7, 80))) << i;
    EXPECT_NE(hash6, hashOf(Frame::eth().ipv6(zero, other).tcp(7, 80))) << i;
  }
  const uint32_t hash4 = hashOf(Frame::eth().ipv4(0, 0).tcp(7, 80));
  for (uint32_t bit = 1; bit != 0; bit <<= 8) {
    EXPECT_NE(hash4, hashOf(Frame::eth().ipv4(bit, 0).tcp(7, 80))) << bit;
    EXPECT_NE(hash4, hashOf(Frame::eth().ipv4(0, bit).tcp(7, 80))) << bit;
  }
}

TEST(FlowHash, ReadsAddressesUpToTheFramesLastByte) {
  const Frame a4 = Frame::eth().ipv4(kA, kB).udp(7, 80);
  const Frame b4 = Frame::eth().ipv4(kA, kA).udp(7, 80);
  EXPECT_NE(hashOfFirst(a4, 14 + 20), hashOfFirst(b4, 14 + 20));
  EXPECT_EQ(hashOfFirst(a4, 14 + 19), hashOfFirst(b4, 14 + 19));
  const Frame a6 = Frame::eth().ipv6(kA6, kB6).udp(7, 80);
  const Frame b6 = Frame::eth().ipv6(kA6, kA6).udp(7, 80);
  EXPECT_NE(hashOfFirst(a6, 14 + 40), hashOfFirst(b6, 14 + 40));
  EXPECT_EQ(hashOfFirst(a6, 14 + 39), hashOfFirst(b6, 14 + 39));
}

TEST(FlowHash, DiffersBetweenFlows) {
  const uint32_t hash = hashOf(Frame::eth().ipv4(kA, kB).tcp(7, 80));
  EXPECT_NE(hash, hashOf(Frame::eth().ipv4(kA, kB).tcp(8, 80)));
  EXPECT_NE(hash, hashOf(Frame::eth().ipv4(kA, kB).udp(7, 80)));
  EXPECT_NE(hash, hashOf(Frame::eth().ipv4(kB, kA).tcp(7, 80)));
  EXPECT_NE(hashOf(Frame::eth().ipv6(kA6, kB6).tcp(7, 80)),
            hashOf(Frame::eth().ipv6(kA6, kB6).tcp(7, 81)));
  EXPECT_NE(hashOf(Frame::eth().arp(kA, kB)),
            hashOf(Frame::eth(kSrcMac, kDstMac).arp(kA, kB)));
}

// TCP, UDP and SCTP have ports at the same place, and nothing else is read as
// such.
TEST(FlowHash, ReadsThePortsOfProtocolsThatHaveThem) {
  constexpr size_t kProtocol = 14 + 9;
  Bytes a = Frame::eth().ipv4(kA, kB).udp(7, 80).bytes();
  Bytes b = Frame::eth().ipv4(kA, kB).udp(7, 81).bytes();
  std::vector<int> with_ports;
  for (int protocol = 0; protocol < 256; protocol++) {
    a[kProtocol] = b[kProtocol] = static_cast<uint8_t>(protocol);
    if (hashOf(a) != hashOf(b)) with_ports.push_back(protocol);
  }
  EXPECT_EQ(with_ports, (std::vector<int>{6, 17, 132}));
}

TEST(FlowHash, ReadsPortsBehindIpv6OnlyWhereTheNextHeaderHasThem) {
  constexpr size_t kNextHeader = 14 + 6;
  Bytes a = Frame::eth().ipv6(kA6, kB6).udp(7, 80).bytes();
  Bytes b = Frame::eth().ipv6(kA6, kB6).udp(7, 81).bytes();
  EXPECT_NE(hashOf(a), hashOf(b));
  a[kNextHeader] = b[kNextHeader] = 58;
  a[kNextHeader + 1] = b[kNextHeader + 1] = 17;  // hops
  EXPECT_EQ(hashOf(a), hashOf(b));
}

TEST(FlowHash, DiffersBetweenFramesTooShortForAFlow) {
  const Bytes zeros(13, 0);
  const Bytes ones(13, 1);
  for (uint32_t len = 1; len <= 13; len++) {
    EXPECT_NE(bess::FlowHash(zeros.data(), len),
              bess::FlowHash(ones.data(), len))
        << len;
    EXPECT_EQ(bess::FlowHash(ones.data(), len),
              bess::FlowHash(Bytes(20, 1).data(), len))
        << len;
  }
}

TEST(FlowHash, ReadsEveryByteOfWhatIsTooShortForAFlow) {
  for (size_t len = 1; len <= 13; len++) {
    Bytes other(len, 0);
    other.back() = 1;
    EXPECT_NE(hashOf(Bytes(len, 0)), hashOf(other)) << len;
  }
}

TEST(FlowHash, ReadsEveryByteOfTheMacsWhereThereIsNoFlow) {
  const Bytes frame = Frame::eth().arp(kA, kB).bytes();
  for (size_t i = 0; i < frame.size(); i++) {
    if (i == 12 || i == 13) continue;  // the type
    Bytes other = frame;
    other[i] ^= 1;
    EXPECT_EQ(hashOf(other) != hashOf(frame), i < 12) << i;
  }
}

TEST(FlowHash, FragmentsStayTogether) {
  EXPECT_EQ(hashOf(Frame::eth().ipv4(kA, kB).fragment(0, true).udp(7, 80)),
            hashOf(Frame::eth().ipv4(kA, kB).fragment(64, false).udp(1, 2)));
}

TEST(FlowHash, ReadsTheMacsOfAFrameThatEndsInATag) {
  const Frame a = Frame::eth().vlan(5).ipv4(kA, kB).udp(7, 80);
  const Frame b = Frame::eth(kSrcMac, kDstMac).vlan(5).ipv4(kA, kB).udp(7, 80);
  for (const long len : {14, 15, 16, 17}) {
    EXPECT_NE(hashOfFirst(a, len), hashOfFirst(b, len)) << len;
    EXPECT_EQ(hashOfFirst(a, len), hashOfFirst(a, 14)) << len;
  }
}

TEST(FlowHash, ReadsPortsUpToTheFramesLastByte) {
  const Frame a = Frame::eth().ipv4(kA, kB).udp(7, 80);
  const Frame b = Frame::eth().ipv4(kA, kB).udp(7, 81);
  EXPECT_EQ(hashOfFirst(a, 14 + 20 + 4), hashOf(a));
  EXPECT_NE(hashOfFirst(a, 14 + 20 + 4), hashOfFirst(b, 14 + 20 + 4));
  EXPECT_EQ(hashOfFirst(a, 14 + 20 + 3), hashOfFirst(b, 14 + 20 + 3));
}

// Read with a sanitizer: nothing beyond the frame is touched.
TEST(FlowHash, TakesFramesCutAnywhere) {
  for (const Frame& frame :
       {Frame::eth().vlan(1).ipv4(kA, kB).tcp(7, 80),
        Frame::eth().qinq(1).vlan(2).ipv6(kA6, kB6).udp(7, 80)}) {
    const Bytes whole = frame.bytes();
    for (size_t len = 0; len <= whole.size(); len++) {
      const Bytes bytes(whole.begin(), whole.begin() + static_cast<long>(len));
      EXPECT_EQ(bess::FlowHash(bytes.data(), static_cast<uint32_t>(len)),
                bess::FlowHash(bytes.data(), static_cast<uint32_t>(len)));
    }
  }
}

}  // namespace
}  // namespace openflow_test
