// SPDX-License-Identifier: BSD-3-Clause
//
// Packets for the controller: the header in front, the trailer behind, the
// metadata of a trap.
#include "tests/datapath/datapath_test.h"

namespace openflow_test {
namespace {

constexpr size_t kHeader = 22;
constexpr size_t kTrailer = 4;

// What the controller gets for a frame.
Bytes wrapped(const Bytes& frame, bool trap, uint8_t reason,
              bool trailer = true) {
  Bytes out(frame.begin(), frame.begin() + 12);
  out.push_back(trap ? 0x81 : 0x00);
  out.push_back(0x31);
  out.resize(kHeader);
  out[17] = reason;
  out.insert(out.end(), frame.begin(), frame.end());
  if (trailer) out.resize(out.size() + kTrailer);
  return out;
}

class Controller : public DataPath {
 protected:
  void expectOut(const InputPacket& packet, uint16_t gate, const Bytes& bytes,
                 const MetadataBlock& meta) {
    const RunResult result = run({packet});
    ASSERT_EQ(result.gate(gate).size(), 1u) << packet;
    EXPECT_EQ(hexDump(result.gate(gate)[0].bytes), hexDump(bytes));
    EXPECT_EQ(result.gate(gate)[0].meta, meta);
    EXPECT_EQ(result.numEmitted(), 1u);
    EXPECT_EQ(result.drops, 1u);
    EXPECT_TRUE(result.tables.empty());
    EXPECT_EQ(result.flowCounters.at(kPackets), 1u);
    EXPECT_EQ(result.flowCounters.at(kByteCount), packet.bytes.size());
  }
};

Flow any() { return Flow(1, 10).counters(kPackets, kByteCount); }

const uint64_t kMetadata = 0x1122334455667788;

// What a trapped copy carries.
MetadataBlock trapped(uint64_t metadata) {
  return MetadataBlock{}.withMetadata(metadata).withPuntWord(0x20000);
}

TEST_F(Controller, GoesBackToTheInPort) {
  add(0, {any().controller(7)});
  expectOut(InputPacket(tcpFrame(), MetadataBlock{}.withInPort(3)), 3,
            wrapped(tcpFrame(), false, 7), {});
}

TEST_F(Controller, WithoutInPortGoesToGateZero) {
  add(0, {any().controller(7)});
  MetadataBlock block;
  block.inPort = 3;
  expectOut(InputPacket(tcpFrame(), block), 0, wrapped(tcpFrame(), false, 7),
            {});
}

TEST_F(Controller, ReasonHasEightBits) {
  add(0, {any().controller(0x1ff)});
  expectOut(tcpFrame(), 0, wrapped(tcpFrame(), false, 0xff), {});
}

TEST_F(Controller, CopyHasNoMetadataOfThePacket) {
  add(0, {any().controller(1)});
  expectOut(
      InputPacket(tcpFrame(),
                  MetadataBlock{}.withMetadata(kMetadata).withPuntWord(1)),
      0, wrapped(tcpFrame(), false, 1), {});
}

TEST_F(Controller, UnconnectedInPortDropsTheCopy) {
  add(0, {any().controller(1)});
  const RunResult result =
      run({InputPacket(tcpFrame(), MetadataBlock{}.withInPort(500))});
  EXPECT_EQ(result.numEmitted(), 0u);
  EXPECT_EQ(result.drops, 2u);
}

TEST_F(Controller, TrapGoesToGateZero) {
  add(0, {any().trap(9)});
  expectOut(
      InputPacket(
          tcpFrame(),
          MetadataBlock{}.withMetadata(kMetadata).withInPort(3).withStartTable(
              0)),
      0, wrapped(tcpFrame(), true, 9), trapped(kMetadata));
}

TEST_F(Controller, TrapWithoutMetadataCarriesZero) {
  add(0, {any().trap(9)});
  MetadataBlock block;
  block.metadata = kMetadata;
  expectOut(InputPacket(tcpFrame(), block), 0, wrapped(tcpFrame(), true, 9),
            trapped(0));
}

// The word of the received packet stays behind: a copy starts with no flags.
TEST_F(Controller, TrapStartsItsPuntWordAnew) {
  add(0, {any().trap(0)});
  expectOut(InputPacket(tcpFrame(), MetadataBlock{}.withPuntWord(0x41)), 0,
            wrapped(tcpFrame(), true, 0), trapped(0));
}

TEST_F(Controller, RewritesComeFirst) {
  add(0, {any().setVlanVid(100).decTtl().trap(9)});
  expectOut(tcpFrame(), 0, wrapped(tcpFrame().vlan(100).ttl(63), true, 9),
            trapped(0));
}

TEST_F(Controller, HeaderRepeatsTheMacsAndKeepsTheTag) {
  const Frame frame = tcpFrame().vlan(5, 3);
  add(0, {any().controller(2)});
  expectOut(frame, 0, wrapped(frame, false, 2), {});
}

TEST_F(Controller, ReceivedPacketWithoutHeadroomStillGetsTheHeader) {
  // The header goes in front of a copy, which has all its headroom.
  add(0, {any().controller(2)});
  InputPacket packet(tcpFrame());
  packet.headroom = 0;
  expectOut(packet, 0, wrapped(tcpFrame(), false, 2), {});
}

TEST_F(Controller, FifteenHundredBytes) {
  const Frame frame = tcpFrame().payload(1460);
  add(0, {any().trap(2)});
  expectOut(frame, 0, wrapped(frame, true, 2), trapped(0));
}

// A copy has 2048 bytes of room: four free bytes are enough for the trailer,
// three are not.
TEST_F(Controller, TrailerIntoTheLastFourBytes) {
  const Frame frame = tcpFrame().payload(2044 - 54);
  add(0, {any().controller(2)});
  expectOut(frame, 0, wrapped(frame, false, 2), {});
}

TEST_F(Controller, NoTrailerIntoThreeBytes) {
  const Frame frame = tcpFrame().payload(2045 - 54);
  add(0, {any().controller(2)});
  expectOut(frame, 0, wrapped(frame, false, 2, false), {});
}

TEST_F(Controller, NoTrailerIntoAFullBuffer) {
  const Frame frame = tcpFrame().payload(2048 - 54);
  add(0, {any().trap(2)});
  expectOut(frame, 0, wrapped(frame, true, 2, false), trapped(0));
}

// Copies of more than 2048 bytes reach into their headroom, with nothing
// behind.
TEST_F(Controller, HeaderIntoTheLast22Bytes) {
  const Frame frame = tcpFrame().payload(kBufferSize - 22 - 54);
  add(0, {any().trap(2)});
  InputPacket packet(frame);
  packet.headroom = 0;
  expectOut(packet, 0, wrapped(frame, true, 2, false), trapped(0));
}

TEST_F(Controller, NoHeaderInto21Bytes) {
  const Frame frame = tcpFrame().payload(kBufferSize - 21 - 54);
  add(0, {any().trap(2)});
  InputPacket packet(frame);
  packet.headroom = 0;
  expectOut(packet, 0, frame, trapped(0));
}

TEST_F(Controller, TrailerOfAChainedCopyGoesBehindItsLastByte) {
  InputPacket packet(tcpFrame().payload(3000 - 54));
  packet.segments = {1000, 500, 1500};
  add(0, {any().trap(2)});
  expectOut(packet, 0, wrapped(packet.bytes, true, 2), trapped(0));
}

TEST_F(Controller, ComesBehindTheOtherOutputs) {
  add(0, {any().output({0}).outputInPort().trap(1)});
  const Bytes frame = tcpFrame();
  const RunResult result = run({frame});
  ASSERT_EQ(result.gate(0).size(), 3u);
  EXPECT_EQ(result.gate(0)[0].bytes, frame);
  EXPECT_EQ(result.gate(0)[1].bytes, frame);
  EXPECT_EQ(result.gate(0)[2].bytes, wrapped(frame, true, 1));
  EXPECT_EQ(result.drops, 1u);
}

TEST_F(Controller, FullBatchOfTraps) {
  add(0, {any().trap(1)});
  const std::vector<InputPacket> packets(
      kMaxBatch,
      InputPacket(tcpFrame(), MetadataBlock{}.withMetadata(kMetadata)));
  const RunResult result = run(packets);
  ASSERT_EQ(result.gate(0).size(), 32u);
  for (const OutputPacket& packet : result.gate(0)) {
    EXPECT_EQ(packet.bytes, wrapped(tcpFrame(), true, 1));
    EXPECT_EQ(packet.meta, trapped(kMetadata));
  }
  EXPECT_EQ(result.drops, 32u);
}

}  // namespace
}  // namespace openflow_test
