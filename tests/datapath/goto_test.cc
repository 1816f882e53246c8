// SPDX-License-Identifier: BSD-3-Clause
//
// Go-to-table: what a copy takes along to the next table, and which tables it
// can go to.
#include "tests/datapath/datapath_test.h"

namespace openflow_test {
namespace {

class Goto : public DataPath {};

Flow any() { return Flow(1, 10); }

const uint64_t kMetadata = 0x1122334455667788;

TEST_F(Goto, CopyContinuesInTheLaterTable) {
  add(0, {any().counters(10, 11).gotoTable(3)});
  add(3, {any().counters(12, 13).output({4})});
  const Bytes frame = tcpFrame();
  const RunResult result = run({frame, frame});
  ASSERT_EQ(result.gate(4).size(), 2u);
  EXPECT_EQ(result.gate(4)[0].bytes, frame);
  EXPECT_EQ(result.gate(4)[0].meta, MetadataBlock{});
  EXPECT_EQ(result.drops, 4u);  // two received packets, two copies
  EXPECT_TRUE(result.tables.empty()) << result;
  EXPECT_EQ(result.flowCounters.at(10), 2u);
  EXPECT_EQ(result.flowCounters.at(11), 2 * frame.size());
  EXPECT_EQ(result.flowCounters.at(12), 2u);
  EXPECT_EQ(result.flowCounters.at(13), 2 * frame.size());
}

TEST_F(Goto, RewritesTravelWithTheCopy) {
  add(0, {any().setVlanVid(100).decTtl().gotoTable(1)});
  add(1, {any().vlanVid(100).ipTtl(63).decTtl().output({1}).counters(
             kPackets, kByteCount)});
  const RunResult result = run({tcpFrame()});
  ASSERT_EQ(result.gate(1).size(), 1u);
  EXPECT_EQ(hexDump(result.gate(1)[0].bytes),
            hexDump(tcpFrame().vlan(100).ttl(62)));
  EXPECT_EQ(result.flowCounters.at(kByteCount), 58u);  // as table 1 received it
}

TEST_F(Goto, MetadataTravels) {
  add(0, {any().gotoTable(1)});
  add(1, {any().metadata(kMetadata).output({1})});
  runOne(InputPacket(tcpFrame(), MetadataBlock{}.withMetadata(kMetadata)), 1);
}

TEST_F(Goto, MetadataThatIsNotValidBecomesZero) {
  add(0, {any().gotoTable(1)});
  add(1, {any().metadata(0).trap(1)});
  MetadataBlock block;
  block.metadata = kMetadata;
  const OutputPacket out = runOne(InputPacket(tcpFrame(), block), 0);
  EXPECT_EQ(out.meta, MetadataBlock{}.withMetadata(0).withPuntWord(0x20000));
}

TEST_F(Goto, InPortTravels) {
  add(0, {any().gotoTable(1)});
  add(1, {any().flood({1, 2, 3}).gotoTable(2)});
  add(2, {any().outputInPort()});
  const RunResult result =
      run({InputPacket(tcpFrame(), MetadataBlock{}.withInPort(0x50002))});
  EXPECT_EQ(result.gate(1).size(), 1u);
  EXPECT_EQ(result.gate(3).size(), 1u);
  EXPECT_EQ(result.gate(2).size(), 1u);
  EXPECT_EQ(result.numEmitted(), 3u);
  EXPECT_EQ(result.drops, 3u);
}

TEST_F(Goto, InPortThatIsNotValidIsZero) {
  add(0, {any().gotoTable(1)});
  add(1, {any().outputInPort()});
  MetadataBlock block;
  block.inPort = 2;
  runOne(InputPacket(tcpFrame(), block), 0);
}

TEST_F(Goto, StartTableDoesNotTravel) {
  // Neither the start table nor a punt word of the received packet matters to
  // the copy.
  add(5, {any().gotoTable(6)});
  add(6, {any().trap(1)});
  const OutputPacket out =
      runOne(InputPacket(tcpFrame(),
                         MetadataBlock{}.withStartTable(5).withPuntWord(0x3)),
             0);
  EXPECT_EQ(out.meta, MetadataBlock{}.withMetadata(0).withPuntWord(0x20000));
}

TEST_F(Goto, OutputsAndGotoAtOnce) {
  add(0, {any().output({1}).gotoTable(1).drop()});
  add(1, {any().decTtl().output({1})});
  const Bytes frame = tcpFrame();
  const RunResult result = run({frame, frame});
  ASSERT_EQ(result.gate(1).size(), 4u);
  EXPECT_EQ(result.gate(1)[0].bytes, frame);
  EXPECT_EQ(result.gate(1)[1].bytes, frame);
  EXPECT_EQ(result.gate(1)[2].bytes, Bytes(tcpFrame().ttl(63)));
  EXPECT_EQ(result.gate(1)[3].bytes, Bytes(tcpFrame().ttl(63)));
  EXPECT_EQ(result.table(0).dropActions, 2u);
  EXPECT_EQ(result.drops, 4u);
}

TEST_F(Goto, MissInTheLaterTableIsItsOwn) {
  add(0, {any().gotoTable(9)});
  add(9, {any().ipProto(17).output({1})});
  const RunResult result = run({tcpFrame()});
  EXPECT_EQ(result.table(9).tableMisses, 1u);
  EXPECT_EQ(result.table(0).tableMisses, 0u);
  EXPECT_EQ(result.table(0).noOutputDrops, 0u);
  EXPECT_EQ(result.drops, 2u);
}

TEST_F(Goto, TableWithoutClassifierFreesTheCopies) {
  add(0, {any().gotoTable(9)});
  const RunResult result = run({tcpFrame(), tcpFrame()});
  EXPECT_EQ(result.table(9).noClassifier, 1u);
  EXPECT_EQ(result.table(9).batchDrops, 1u);
  EXPECT_EQ(result.drops, 2u);
  EXPECT_EQ(result.leakedPackets, 0);
}

TEST_F(Goto, ThroughAllTables) {
  for (uint32_t t = 0; t + 1 < kFlowTables; t++) {
    add(t, {any().decTtl().counters(t, t).gotoTable(t + 1)});
  }
  add(31, {any().decTtl().counters(31, 31).output({1})});
  std::vector<InputPacket> packets;
  for (uint16_t i = 0; i < kMaxBatch; i++) {
    packets.emplace_back(Frame::eth().ipv4(kIpA, kIpB).tcp(i, 80).ttl(64));
  }
  const RunResult result = run(packets);
  ASSERT_EQ(result.gate(1).size(), 32u);
  for (uint16_t i = 0; i < kMaxBatch; i++) {
    EXPECT_EQ(hexDump(result.gate(1)[i].bytes),
              hexDump(Frame::eth().ipv4(kIpA, kIpB).tcp(i, 80).ttl(32)));
  }
  EXPECT_EQ(result.drops, 32u * 32);
  for (uint32_t t = 0; t < kFlowTables; t++) {
    EXPECT_EQ(result.flowCounters.at(t), 32 * (1 + packets[0].bytes.size()));
  }
}

// Packets that start in every table and all go on to the last one, beside a
// packet that starts there.
TEST_F(Goto, FanInOfAFullBatch) {
  std::vector<InputPacket> packets;
  for (uint16_t t = 0; t < kFlowTables; t++) {
    if (t < 31) add(t, {any().gotoTable(31)});
    packets.emplace_back(Frame::eth().ipv4(kIpA, kIpB).tcp(t, 80),
                         MetadataBlock{}.withStartTable(t));
  }
  add(31, {any().output({1})});
  const RunResult result = run(packets);
  ASSERT_EQ(result.gate(1).size(), 32u);
  // The packet that starts in table 31 has waited there from the beginning.
  EXPECT_EQ(result.gate(1)[0].bytes, packets[31].bytes);
  for (size_t i = 1; i < kMaxBatch; i++) {
    EXPECT_EQ(result.gate(1)[i].bytes, packets[i - 1].bytes);
  }
  EXPECT_EQ(result.drops, 32u + 31);
}

// ---- Tables that are not later ones.

class GotoNowhere : public DataPath,
                    public ::testing::WithParamInterface<uint32_t> {};

TEST_P(GotoNowhere, MakesNoCopy) {
  add(5, {any().decTtl().gotoTable(GetParam()).counters(kPackets, kByteCount)});
  add(0, {any().output({1})});
  add(4, {any().output({1})});
  const InputPacket packet(tcpFrame(), MetadataBlock{}.withStartTable(5));
  const RunResult result = run({packet, packet});
  EXPECT_EQ(result.numEmitted(), 0u);
  EXPECT_EQ(result.drops, 2u);
  EXPECT_TRUE(result.tables.empty()) << result;
  EXPECT_EQ(result.flowCounters.at(kPackets), 2u);
}

INSTANTIATE_TEST_SUITE_P(Tables, GotoNowhere,
                         ::testing::Values(0, 4, 5, 32, 33, 255, 256 + 4));

TEST_F(Goto, TableNumberHasEightBits) {
  add(5, {any().gotoTable(300)});  // 44: there is none
  add(12, {any().output({1})});
  EXPECT_EQ(run({InputPacket(tcpFrame(), MetadataBlock{}.withStartTable(5))})
                .numEmitted(),
            0u);
  add(5, {any().gotoTable(256 + 12)});
  runOne(InputPacket(tcpFrame(), MetadataBlock{}.withStartTable(5)), 1);
}

}  // namespace
}  // namespace openflow_test
