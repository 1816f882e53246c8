// SPDX-License-Identifier: BSD-3-Clause
//
// The corners of one's-complement arithmetic: where an incremental update gives
// other bytes than a fresh sum, and headers whose length field lies.
#include "tests/datapath/datapath_test.h"

namespace openflow_test {
namespace {

constexpr size_t kL3 = 14;
constexpr size_t kIpChecksum = kL3 + 10;
constexpr size_t kTcpChecksum = kL3 + 20 + 16;
constexpr size_t kUdpChecksum = kL3 + 20 + 6;
constexpr size_t kUdp6Checksum = kL3 + 40 + 6;
constexpr size_t kIcmpChecksum = kL3 + 20 + 2;

Frame tcp4() { return Frame::eth().ipv4(kIpA, kIpB).tcp(7, 80); }
Frame udp4() { return Frame::eth().ipv4(kIpA, kIpB).udp(7, 80); }
Frame udp6() { return Frame::eth().ipv6(kIp6A, kIp6B).udp(7, 80); }
Frame icmp4() { return Frame::eth().ipv4(kIpA, kIpB).icmp(8, 0); }

// A checksum in the frame, and what the flow's rewrite has to make of it.
struct CornerCase {
  const char* name;
  Flow flow;
  Frame frame;
  size_t at;
  uint16_t before;
  uint16_t after;
};

void PrintTo(const CornerCase& row, std::ostream* out) {
  *out << hexDump(row.frame);
}

class Corner : public DataPath,
               public ::testing::WithParamInterface<CornerCase> {};

TEST_P(Corner, ChecksumIs) {
  const CornerCase& row = GetParam();
  Flow flow = row.flow;
  add(0, {flow.output({2})});
  Bytes frame = row.frame;
  put16(&frame[row.at], row.before);
  const OutputPacket out = runOne(frame, 2);
  ASSERT_EQ(out.bytes.size(), frame.size());
  EXPECT_EQ(hex({out.bytes[row.at], out.bytes[row.at + 1]}),
            hex({static_cast<uint8_t>(row.after >> 8),
                 static_cast<uint8_t>(row.after)}));
}

Flow any() { return Flow(1, 10); }

// Port 80 to 81 is a difference of 1, 80 to 79 one of -1 (0xfffe).
const CornerCase kCornerCases[] = {
    {"UdpBecomesZeroAndStaysZero", any().setL4DstPort(81), udp4(), kUdpChecksum,
     0x0001, 0x0000},
    {"UdpIpv6BecomesZero", any().setL4DstPort(81), udp6(), kUdp6Checksum,
     0x0001, 0x0000},
    {"UdpIpv6ZeroIsUpdated", any().setL4DstPort(81), udp6(), kUdp6Checksum,
     0x0000, 0xfffe},
    {"UdpZeroStays", any().setL4DstPort(81), udp4(), kUdpChecksum, 0x0000,
     0x0000},
    {"UdpAllOnes", any().setL4DstPort(81), udp4(), kUdpChecksum, 0xffff,
     0xfffe},
    {"TcpBecomesZero", any().setL4DstPort(81), tcp4(), kTcpChecksum, 0x0001,
     0x0000},
    {"TcpZeroIsUpdated", any().setL4DstPort(81), tcp4(), kTcpChecksum, 0x0000,
     0xfffe},
    {"TcpBorrow", any().setL4DstPort(79), tcp4(), kTcpChecksum, 0xffff, 0x0001},
    {"TcpSamePortKeepsChecksum", any().setL4DstPort(80), tcp4(), kTcpChecksum,
     0x1234, 0x1234},
    {"TcpSamePortTurnsAllOnesToZero", any().setL4DstPort(80), tcp4(),
     kTcpChecksum, 0xffff, 0x0000},
    {"TcpSameAddressTurnsAllOnesToZero", any().setIpv4Src(kIpA), tcp4(),
     kTcpChecksum, 0xffff, 0x0000},
    {"TcpZeroPortOverAllOnesPort", any().setL4DstPort(0),
     Frame::eth().ipv4(kIpA, kIpB).tcp(7, 0xffff), kTcpChecksum, 0xffff,
     0xffff},
    {"TcpSwappedPorts", any().setL4SrcPort(80).setL4DstPort(7), tcp4(),
     kTcpChecksum, 0xffff, 0x0000},
    {"TcpUntouchedByTtl", any().decTtl().setIpTos(4), tcp4(), kTcpChecksum,
     0xffff, 0xffff},
    {"IcmpBecomesZero", any().setIcmpCode(1), icmp4(), kIcmpChecksum, 0x0001,
     0x0000},
    {"IcmpZeroIsUpdated", any().setIcmpCode(1), icmp4(), kIcmpChecksum, 0x0000,
     0xfffe},
    {"IcmpSameIsUntouched", any().setIcmpType(8), icmp4(), kIcmpChecksum,
     0xffff, 0xffff},
    {"IcmpIgnoresAddresses", any().setIpv4Src(1).setIcmpCode(1), icmp4(),
     kIcmpChecksum, 0x8000, 0x7fff},
    {"HeaderChecksumIsFresh", any().setIpTos(0), tcp4(), kIpChecksum, 0x0000,
     get16(Bytes(tcp4()).data() + kIpChecksum)},
};

INSTANTIATE_TEST_SUITE_P(Rows, Corner, ::testing::ValuesIn(kCornerCases),
                         rowName);

class HeaderChecksum : public DataPath {};

// The sum of the other words decides: 0xffff has the complement 0, which stays.
TEST_F(HeaderChecksum, ZeroIsWritten) {
  add(0, {any().decTtl().output({2})});
  Bytes frame = tcp4().ttl(64);
  // The identification takes up what is missing to a sum of 0xffff.
  frame[kL3 + 8] = 63;
  put16(&frame[kIpChecksum], 0);
  put16(&frame[kL3 + 4], 0);
  const uint16_t sum = foldSum(onesSum(&frame[kL3], 20));
  put16(&frame[kL3 + 4], static_cast<uint16_t>(0xffff - sum));
  frame[kL3 + 8] = 64;
  put16(&frame[kIpChecksum], 0x5555);
  const OutputPacket out = runOne(frame, 2);
  EXPECT_EQ(get16(&out.bytes[kIpChecksum]), 0x0000);
  EXPECT_EQ(out.bytes[kL3 + 8], 63);
}

// ---- Headers whose length field says less than 20 bytes.

class ShortHeader : public DataPath,
                    public ::testing::WithParamInterface<int> {};

TEST_P(ShortHeader, ChecksumFieldBecomesZero) {
  add(0, {any().decTtl().output({2})});
  const Bytes frame = tcp4().rawIhl(static_cast<uint8_t>(GetParam()));
  Bytes expected = frame;
  expected[kL3 + 8] = 63;
  put16(&expected[kIpChecksum], 0);
  EXPECT_EQ(hexDump(runOne(frame, 2).bytes), hexDump(expected));
}

TEST_P(ShortHeader, UntouchedWithoutIpRewrite) {
  add(0, {any().setEthDst(kSrcMac).output({2})});
  const Bytes frame = tcp4().rawIhl(static_cast<uint8_t>(GetParam()));
  Bytes expected = frame;
  std::copy(kSrcMac.begin(), kSrcMac.end(), expected.begin());
  EXPECT_EQ(hexDump(runOne(frame, 2).bytes), hexDump(expected));
}

// Ports and checksum lie 4 x IHL behind the start of the header, inside it.
TEST_P(ShortHeader, L4LiesInsideTheHeader) {
  add(0, {any().setL4SrcPort(0x1111).output({2})});
  const auto ihl = static_cast<size_t>(GetParam());
  const Bytes frame = tcp4().rawIhl(static_cast<uint8_t>(ihl));
  const size_t l4 = kL3 + 4 * ihl;
  Bytes expected = frame;
  const uint32_t difference =
      0x1111u + static_cast<uint16_t>(~get16(&frame[l4]));
  put16(&expected[l4], 0x1111);
  const auto complement = static_cast<uint16_t>(~get16(&expected[l4 + 16]));
  put16(&expected[l4 + 16],
        static_cast<uint16_t>(~foldSum(difference + complement)));
  EXPECT_EQ(hexDump(runOne(frame, 2).bytes), hexDump(expected));
}

INSTANTIATE_TEST_SUITE_P(Words, ShortHeader, ::testing::Range(0, 5));

// With one word of header, UDP's checksum field is the header checksum: zeroed
// first, it says "none".
TEST_F(HeaderChecksum, UdpChecksumOverHeaderChecksum) {
  add(0, {any().decTtl().setL4SrcPort(0x1111).output({2})});
  const Bytes frame = udp4().rawIhl(1);
  Bytes expected = frame;
  expected[kL3 + 8] = 63;
  put16(&expected[kL3 + 4], 0x1111);
  put16(&expected[kIpChecksum], 0);
  EXPECT_EQ(hexDump(runOne(frame, 2).bytes), hexDump(expected));
}

}  // namespace
}  // namespace openflow_test
