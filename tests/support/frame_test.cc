// SPDX-License-Identifier: BSD-3-Clause
//
// The frame builder and the verifier against bytes and sums that were worked
// out by others: textbook headers and the example of RFC 1071.
#include "tests/support/frame.h"

#include <gtest/gtest.h>

#include "tests/support/checksum.h"
#include "tests/support/packet.h"

namespace openflow_test {
namespace {

const uint32_t kSrc = ip4("10.0.0.1");
const uint32_t kDst = ip4("10.0.0.2");
const std::string kMacs = "02000000000d020000000005";

// 10.0.0.1 to 10.0.0.2, 32 bytes, TTL 64, identification 0x1234.
const std::string kIpv4Udp = "4500002012340000401154970a0000010a000002";

TEST(Bytes, Addresses) {
  EXPECT_EQ(mac("00:11:22:aa:BB:ff"), (Mac{0, 0x11, 0x22, 0xaa, 0xbb, 0xff}));
  EXPECT_EQ(kSrc, 0x0a000001u);
  EXPECT_EQ(ip6("2001:db8::1")[15], 1);
  EXPECT_THROW(mac("00:11:22:33:44"), std::invalid_argument);
  EXPECT_THROW(ip4("10.0.0"), std::invalid_argument);
  EXPECT_THROW(ip6("10.0.0.1"), std::invalid_argument);
  EXPECT_THROW(fromHex("123"), std::invalid_argument);
  EXPECT_THROW(fromHex("0g"), std::invalid_argument);
  EXPECT_EQ(hex(fromHex("81 00\n0064")), "81000064");
}

TEST(Checksum, ExampleOfRfc1071) {
  const Bytes bytes = fromHex("0001 f203 f4f5 f6f7");
  EXPECT_EQ(foldSum(onesSum(bytes.data(), bytes.size())), 0xddf2);
}

TEST(Checksum, OddLastByteIsAHighOne) {
  const Bytes bytes = fromHex("0001 f2");
  EXPECT_EQ(foldSum(onesSum(bytes.data(), bytes.size())), 0xf201);
}

TEST(Checksum, CarriesAreFoldedTwice) {
  EXPECT_EQ(foldSum(0x1ffff), 1);
  EXPECT_EQ(foldSum(0xffff), 0xffff);
  EXPECT_EQ(foldSum(0), 0);
}

// The header that many texts take as their example, with the checksum 0xb861.
TEST(Checksum, KnownIpv4Header) {
  const std::string header = "45000073000040004011b861c0a80001c0a800c7";
  Bytes frame = fromHex(kMacs + "0800" + header + "00070035005f0000");
  frame.resize(14 + 0x73);
  EXPECT_EQ(checksumError(frame), "");
  frame[14 + 8]--;
  EXPECT_NE(checksumError(frame), "");
}

struct BytesCase {
  const char* name;
  Bytes frame;
  std::string expected;
};

void PrintTo(const BytesCase& row, std::ostream* out) {
  *out << hexDump(row.frame);
}

class FrameBytes : public ::testing::TestWithParam<BytesCase> {};

TEST_P(FrameBytes, Are) {
  EXPECT_EQ(hex(GetParam().frame), GetParam().expected);
}

const BytesCase kBytesCases[] = {
    {"Empty", Frame::eth().ethType(0x88b5), kMacs + "88b5"},
    {"Tags", Frame::eth().qinq(5, 1).vlan(100, 3, true).ethType(0x0800),
     kMacs + "88a82005" + "81007064" + "0800"},
    {"Snap", Frame::eth().snap().ethType(0x0806).payload(2),
     kMacs + "000a" + "aaaa03000000" + "0806" + "0001"},
    {"SnapThenTag", Frame::eth().snap(7, 0x0000f8).vlan(1).ethType(0x0806),
     kMacs + "000c" + "aaaa070000f8" + "81000001" + "0806"},
    {"Llc", Frame::eth().llc(0x42, 0x43).payload(3),
     kMacs + "0006" + "424303" + "000102"},
    {"Arp", Frame::eth().arp(kSrc, kDst),
     kMacs + "0806" + "0001080006040001" + "0200000000050a000001" +
         "0000000000000a000002"},
    {"UdpWithoutChecksum",
     Frame::eth().ipv4(kSrc, kDst).udp(7, 80).udpNoChecksum().payload("data"),
     kMacs + "0800" + kIpv4Udp + "00070050000c0000" + "64617461"},
    {"Keep", Frame::eth().ipv4(kSrc, kDst).udp(7, 80).keep(14), kMacs + "0800"},
    {"Cut", Frame::eth().ethType(0x88b5).payload(4).cut(3),
     kMacs + "88b5" + "00"},
    {"Patch", Frame::eth().ethType(0x88b5).patch(12, {1, 2}), kMacs + "0102"},
    {"HopByHop",
     Frame::eth().ipv6(ip6("::1"), ip6("::2")).hopByHop().proto(59).tos(0x12),
     kMacs + "86dd" + "612000000008" + "0040" +
         "00000000000000000000000000000001" +
         "00000000000000000000000000000002" + "3b00010400000000"},
};

INSTANTIATE_TEST_SUITE_P(Rows, FrameBytes, ::testing::ValuesIn(kBytesCases),
                         [](const auto& row) {
                           return std::string(row.param.name);
                         });

// Every kind of frame verifies, and none does with any one byte under its
// checksums changed.
TEST(Frames, ChecksumsCoverEveryByte) {
  const Frame frames[] = {
      Frame::eth().ipv4(kSrc, kDst).tcp(7, 80).payload("odd"),
      Frame::eth().vlan(5).ipv4(kSrc, kDst).options(7).udp(7, 80),
      Frame::eth().ipv4(kSrc, kDst).icmp(8, 0).payload("echo"),
      Frame::eth().ipv6(ip6("::1"), ip6("::2")).tcp(7, 80).payload("even"),
      Frame::eth().snap().ipv6(ip6("::1"), ip6("::2")).udp(7, 80),
      Frame::eth().ipv6(ip6("::1"), ip6("::2")).icmp(128, 0).payload("odd"),
  };
  for (const Frame& frame : frames) {
    const Bytes good = frame;
    EXPECT_EQ(checksumError(good), "") << hexDump(good);
    for (size_t at = good.size() - 8; at < good.size(); at++) {
      Bytes bad = good;
      bad[at] ^= 0x10;
      EXPECT_NE(checksumError(bad), "") << at << '\n' << hexDump(bad);
    }
  }
}

TEST(Frames, WordsThatDoNotFitThrow) {
  EXPECT_THROW(Frame::eth().ipv4(kSrc, kDst).options(4), std::invalid_argument);
  EXPECT_THROW(Frame::eth().patch(14, {1}).bytes(), std::out_of_range);
  EXPECT_ANY_THROW(Frame::eth().flowLabel(1));
}

TEST(Metadata, CountsOnlyWhatIsValid) {
  MetadataBlock a, b;
  a.metadata = 1, b.metadata = 2;
  EXPECT_EQ(a, b);
  a.withMetadata(1), b.withMetadata(2);
  EXPECT_FALSE(a == b);
  b.withMetadata(1).withInPort(0);
  EXPECT_FALSE(a == b);
}

}  // namespace
}  // namespace openflow_test
