// SPDX-License-Identifier: BSD-3-Clause
//
// Frames that no sender should send, and buffers that leave no room: everything
// is done to them that a flow says, and compared with the twin.
#include "modules/openflow/datapath/rewrite.h"
#include "tests/datapath/datapath_test.h"
#include "tests/support/packet_factory.h"

namespace openflow_test {
namespace {

class EdgeFrames : public DataPath {
 protected:
  // Any number of packets, in batches.
  std::vector<OutputPacket> runAll(const std::vector<InputPacket>& packets,
                                   uint16_t gate) {
    std::vector<OutputPacket> outputs;
    for (size_t i = 0; i < packets.size(); i += kMaxBatch) {
      const size_t end = std::min(i + kMaxBatch, packets.size());
      const RunResult result =
          run({packets.begin() + static_cast<ptrdiff_t>(i),
               packets.begin() + static_cast<ptrdiff_t>(end)});
      EXPECT_EQ(result.drops, end - i);
      EXPECT_EQ(result.leakedPackets, 0);
      const auto& some = result.gate(gate);
      outputs.insert(outputs.end(), some.begin(), some.end());
    }
    EXPECT_EQ(outputs.size(), packets.size());
    return outputs;
  }
};

Flow rewriteIp() {
  return Flow(1, 10)
      .counters(kPackets, kByteCount)
      .setEthDst(kSrcMac)
      .setEthSrc(kDstMac)
      .decTtl()
      .setIpTos(0x1c)
      .setIpv4Src(ip4("172.16.0.1"))
      .setIpv4Dst(ip4("172.16.0.2"))
      .setL4SrcPort(1111)
      .setL4DstPort(2222)
      .setIcmpType(3)
      .setIcmpCode(4);
}

const std::vector<Frame> kWholeFrames = {
    Frame::eth().ipv4(kIpA, kIpB).tcp(7, 80).payload(6),
    Frame::eth().vlan(5, 2).ipv4(kIpA, kIpB).udp(7, 80).payload(6),
    Frame::eth().ipv4(kIpA, kIpB).options(15).icmp(8, 0).payload(6),
    Frame::eth().ipv6(kIp6A, kIp6B).tcp(7, 80).payload(6),
    Frame::eth().vlan(5).ipv6(kIp6A, kIp6B).icmp(128, 0).payload(6),
    Frame::eth().qinq(5).vlan(6).ipv4(kIpA, kIpB).udp(7, 80),
    Frame::eth().snap().vlan(5).ipv6(kIp6A, kIp6B).udp(7, 80),
    Frame::eth().arp(kIpA, kIpB),
    Frame::eth().llc(0x42, 0x42).payload(40),
};

// Every length from nothing to the whole frame; what is behind the end is
// rewritten there and sent nowhere.
TEST_F(EdgeFrames, CutAtEveryByte) {
  add(0, {rewriteIp().output({2})});
  for (const Frame& whole : kWholeFrames) {
    const Bytes bytes = whole;
    std::vector<InputPacket> packets;
    for (size_t length = 0; length <= bytes.size(); length++) {
      packets.emplace_back(Frame(whole).keep(length));
    }
    const std::vector<OutputPacket> outputs = runAll(packets, 2);
    for (size_t length = 0; length < outputs.size(); length++) {
      EXPECT_EQ(outputs[length].bytes.size(), length);
    }
  }
}

TEST_F(EdgeFrames, CutAtEveryByteWithTagActions) {
  add(0, {rewriteIp().popVlan().setVlanVid(100).setVlanPcp(5).output({2})});
  for (const Frame& whole : kWholeFrames) {
    std::vector<InputPacket> packets;
    for (size_t length = 0; length <= Bytes(whole).size(); length++) {
      packets.emplace_back(Frame(whole).keep(length));
    }
    runAll(packets, 2);
  }
}

TEST_F(EdgeFrames, PopNeedsFourBytes) {
  add(0, {Flow(1, 10).popVlan().output({2})});
  const Frame tagged = Frame::eth().vlan(5).ipv4(kIpA, kIpB).tcp(7, 80);
  const Bytes whole = tagged;
  for (size_t length = 0; length <= 20; length++) {
    // The tag lies in the buffer, behind the end of the data or not.
    InputPacket packet(whole);
    packet.segments = {length, whole.size() - length};
    packet.fill = 0x81;
    const OutputPacket out = runOne(packet, 2);
    EXPECT_EQ(out.bytes.size(), whole.size() - (length >= 14 ? 4 : 0))
        << length;
  }
  InputPacket tagBehind(Frame(tagged).keep(3));
  EXPECT_EQ(runOne(tagBehind, 2).bytes.size(), 3u);
}

// The tag is in the buffer each time, but the data ends before it.
TEST_F(EdgeFrames, PopNeedsFourBytesOfData) {
  PacketFactory factory(63);
  OfFlowAction action{};
  action.fields.popVlan = 1;
  const Bytes tagged = Frame::eth().vlan(5).ipv4(kIpA, kIpB).tcp(7, 80);
  for (uint16_t length = 0; length <= 20; length++) {
    bess::Packet* packet = factory.make(tagged);
    packet->set_data_len(length);
    packet->set_total_len(length);
    const auto* start = packet->head_data<const uint8_t*>();
    rewritePacket(packet, action);
    const uint16_t popped = length < 4 ? 0 : 4;
    EXPECT_EQ(packet->head_data<const uint8_t*>(), start + popped) << length;
    EXPECT_EQ(packet->head_len(), length - popped) << length;
    EXPECT_EQ(packet->total_len(), length - popped) << length;
    // The addresses are there, moved or not, whether data or behind it.
    EXPECT_EQ(hex(Bytes(start + popped, start + popped + 12)),
              hex(Bytes(tagged.begin(), tagged.begin() + 12)))
        << length;
    bess::Packet::Free(packet);
  }
}

TEST_F(EdgeFrames, ControllerGetsFramesOfEveryLength) {
  add(0, {Flow(1, 10).trap(1)});
  std::vector<InputPacket> packets;
  for (size_t length = 12; length <= 80; length++) {
    packets.emplace_back(tcpFrame().payload(26).keep(length));
  }
  const std::vector<OutputPacket> outputs = runAll(packets, 0);
  for (size_t i = 0; i < outputs.size(); i++) {
    EXPECT_EQ(outputs[i].bytes.size(), packets[i].bytes.size() + 26);
  }
}

// The header repeats twelve bytes that the frame does not have: its length and
// what it does have are certain.
TEST_F(EdgeFrames, ControllerGetsFramesWithoutBothAddresses) {
  harness().addFlows(0, {Flow(1, 10).trap(9)});
  for (size_t length = 0; length < 12; length++) {
    Bytes frame;
    while (frame.size() < length) frame.push_back(0x41 + frame.size());
    const RunResult result = harness().run({frame});
    ASSERT_EQ(result.gate(0).size(), 1u);
    const Bytes& out = result.gate(0)[0].bytes;
    ASSERT_EQ(out.size(), 22 + frame.size() + 4);
    EXPECT_TRUE(std::equal(frame.begin(), frame.end(), out.begin()));
    EXPECT_EQ(hex({out.begin() + 12, out.begin() + 22}),
              "81310000000900000000");
    EXPECT_EQ(hex({out.begin() + 22, out.end()}), hex(frame) + "00000000");
    EXPECT_EQ(result.drops, 1u);
    EXPECT_EQ(result.leakedPackets, 0);
  }
}

TEST_F(EdgeFrames, GotoWithAFrameOfOneByte) {
  harness().addFlows(0, {Flow(1, 10).gotoTable(1)});
  harness().addFlows(1, {Flow(1, 10).output({1})});
  for (const Bytes& frame : {Bytes{}, Bytes{0x42}}) {
    const RunResult result = harness().run({frame});
    ASSERT_EQ(result.gate(1).size(), 1u);
    EXPECT_EQ(result.gate(1)[0].bytes, frame);
    EXPECT_EQ(result.drops, 2u);
  }
}

TEST_F(EdgeFrames, NoHeadroom) {
  add(0, {rewriteIp().setVlanVid(100).output({2})});
  std::vector<InputPacket> packets;
  for (const Frame& frame : kWholeFrames) {
    for (size_t headroom = 0; headroom <= 5; headroom++) {
      packets.emplace_back(frame);
      packets.back().headroom = headroom;
    }
  }
  runAll(packets, 2);
}

TEST_F(EdgeFrames, NoTailroom) {
  add(0, {rewriteIp().popVlan().setVlanVid(100).output({2})});
  std::vector<InputPacket> packets;
  for (const Frame& frame : kWholeFrames) {
    packets.emplace_back(Bytes(frame));
    packets.back().headroom = kBufferSize - packets.back().bytes.size();
  }
  runAll(packets, 2);
}

// Headers that would reach beyond the buffer are read as zeros there.
TEST_F(EdgeFrames, CutAtEveryByteAtTheBuffersEnd) {
  add(0, {rewriteIp().popVlan().setVlanVid(100).setVlanPcp(5).output({2})});
  for (const Frame& whole : kWholeFrames) {
    std::vector<InputPacket> packets;
    for (size_t length = 0; length <= Bytes(whole).size(); length++) {
      packets.emplace_back(Frame(whole).keep(length));
      packets.back().headroom = kBufferSize - packets.back().bytes.size();
    }
    runAll(packets, 2);
  }
}

// Around the place where a frame begins to be too near its buffer's end to be
// read and rewritten there, with free bytes behind it and without.
TEST_F(EdgeFrames, AroundTheLastPlaceForAFrame) {
  add(0, {rewriteIp().popVlan().setVlanVid(100).setVlanPcp(5).output({2})});
  for (const Frame& whole : kWholeFrames) {
    std::vector<InputPacket> packets;
    for (const size_t length : {size_t{40}, Bytes(whole).size()}) {
      for (size_t room = 120; room <= 136; room++) {
        packets.emplace_back(Frame(whole).keep(length));
        packets.back().headroom = kBufferSize - room;  // in all
        packets.push_back(packets.back());
        packets.back().headroom = kBufferSize - length - room;  // behind it
      }
    }
    runAll(packets, 2);
  }
}

TEST_F(EdgeFrames, ShortestFrameThatCanBeTagged) {
  add(0, {Flow(1, 10).setVlanVid(100).output({2})});
  const Frame frame = Frame::eth().ethType(0x88b5);
  for (const size_t length : {13, 14}) {
    InputPacket packet(Frame(frame).keep(length));
    packet.headroom = kBufferSize - length;
    EXPECT_EQ(runOne(packet, 2).bytes,
              length == 14 ? Bytes(Frame(frame).vlan(100)) : packet.bytes);
  }
}

TEST_F(EdgeFrames, WholeBuffer) {
  add(0, {Flow(1, 10).decTtl().output({2}).trap(4)});
  InputPacket packet(tcpFrame().payload(kBufferSize - 54));
  packet.headroom = 0;
  const RunResult result = run({packet});
  ASSERT_EQ(result.gate(2).size(), 1u);
  EXPECT_EQ(result.gate(2)[0].bytes,
            Bytes(tcpFrame().payload(kBufferSize - 54).ttl(63)));
  // Its copy fills a buffer as well: neither header nor trailer.
  EXPECT_EQ(result.gate(0)[0].bytes, result.gate(2)[0].bytes);
}

TEST_F(EdgeFrames, EveryHeaderLength) {
  add(0, {rewriteIp().output({2})});
  std::vector<InputPacket> packets;
  for (uint8_t words = 0; words <= 15; words++) {
    for (const uint8_t proto : {1, 6, 17, 58, 253}) {
      packets.emplace_back(Frame::eth()
                               .ipv4(kIpA, kIpB)
                               .rawIhl(words)
                               .tcp(7, 80)
                               .proto(proto)
                               .payload(60));
      packets.emplace_back(Frame::eth()
                               .vlan(5)
                               .ipv4(kIpA, kIpB)
                               .options(std::max<uint8_t>(words, 5))
                               .udp(7, 80)
                               .proto(proto)
                               .payload(60));
    }
  }
  runAll(packets, 2);
}

// The L4 header would begin up to 60 bytes behind the L3 header, in the buffer,
// partly in it, or beyond.
TEST_F(EdgeFrames, EveryHeaderLengthAtTheBuffersEnd) {
  add(0, {rewriteIp().setVlanVid(9).output({2})});
  std::vector<InputPacket> packets;
  for (uint8_t words = 0; words <= 15; words++) {
    for (const uint8_t proto : {1, 6, 17}) {
      for (const size_t length : {14, 33, 34, 35, 36, 42, 50, 54}) {
        packets.emplace_back(Frame::eth()
                                 .ipv4(kIpA, kIpB)
                                 .rawIhl(words)
                                 .tcp(7, 80)
                                 .proto(proto)
                                 .keep(length));
        packets.back().headroom = kBufferSize - length;
      }
    }
  }
  runAll(packets, 2);
}

// A frame that is all buffer, and frames of one byte at either end of it.
TEST_F(EdgeFrames, LoneBytesAtTheBuffersEnds) {
  add(0, {rewriteIp().popVlan().setVlanVid(9).output({2}).trap(1)});
  for (const size_t length : {0, 1}) {
    for (const size_t headroom : {size_t{0}, kBufferSize - length}) {
      InputPacket packet(Bytes(length, 0x81));
      packet.headroom = headroom;
      const RunResult result = harness().run({packet});
      ASSERT_EQ(result.gate(2).size(), 1u);
      EXPECT_EQ(result.gate(2)[0].bytes.size(), length);
      ASSERT_EQ(result.gate(0).size(), 1u);
      EXPECT_EQ(result.drops, 1u);
      EXPECT_EQ(result.leakedPackets, 0);
    }
  }
}

TEST_F(EdgeFrames, EveryProtocolNumber) {
  add(0, {rewriteIp().output({2})});
  std::vector<InputPacket> packets;
  for (unsigned proto = 0; proto < 256; proto++) {
    packets.emplace_back(Frame::eth()
                             .ipv4(kIpA, kIpB)
                             .tcp(7, 80)
                             .proto(static_cast<uint8_t>(proto)));
    packets.emplace_back(Frame::eth()
                             .ipv6(kIp6A, kIp6B)
                             .tcp(7, 80)
                             .proto(static_cast<uint8_t>(proto)));
  }
  runAll(packets, 2);
}

// ---- Chained packets.

TEST_F(EdgeFrames, ChainedPacketIsCopiedWhole) {
  add(0, {rewriteIp().popVlan().output({2})});
  InputPacket packet(
      Frame::eth().vlan(5).ipv4(kIpA, kIpB).tcp(7, 80).payload(5000 - 58));
  packet.segments = {1000, 1, 0, 2000, 1999};
  const OutputPacket out = runOne(packet, 2);
  EXPECT_EQ(out.bytes.size(), 4996u);
  EXPECT_EQ(checksumError(out.bytes), "");
}

// Headers are read from the first segment's buffer, and go on behind its data.
TEST_F(EdgeFrames, HeadersAreReadFromTheFirstSegment) {
  add(0, {Flow(1, 10).l4DstPort(0xeeee).output({1}),
          Flow(2, 20).l4DstPort(80).output({2})});
  InputPacket split(tcpFrame());
  split.segments = {14 + 20 + 2, 18};
  EXPECT_EQ(runOne(split, 1).bytes, split.bytes);
  InputPacket whole(tcpFrame());
  whole.segments = {54 - 6, 6};
  EXPECT_EQ(runOne(whole, 2).bytes, whole.bytes);
}

TEST_F(EdgeFrames, SplitAtEveryByte) {
  add(0, {rewriteIp().setVlanVid(9).output({2})});
  std::vector<InputPacket> packets;
  const Bytes frame = tcpFrame().payload(10);
  for (size_t first = 0; first <= frame.size(); first++) {
    packets.emplace_back(frame);
    packets.back().segments = {first, frame.size() - first};
  }
  runAll(packets, 2);
}

TEST_F(EdgeFrames, ChainedThroughTables) {
  add(0, {Flow(1, 10).decTtl().gotoTable(1)});
  add(1, {Flow(1, 10).decTtl().output({1}).trap(3)});
  InputPacket packet(tcpFrame().payload(9000 - 54));
  const RunResult result = run({packet, packet});
  ASSERT_EQ(result.gate(1).size(), 2u);
  EXPECT_EQ(result.gate(1)[0].bytes,
            Bytes(tcpFrame().payload(9000 - 54).ttl(62)));
  EXPECT_EQ(result.gate(0)[0].bytes.size(), 9026u);
  EXPECT_EQ(result.drops, 4u);
  EXPECT_EQ(result.leakedPackets, 0);
}

}  // namespace
}  // namespace openflow_test
