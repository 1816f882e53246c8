// SPDX-License-Identifier: BSD-3-Clause
//
// The sweep over the tables: start tables, misses, counters of tables, flows
// and workers.
#include "platform/quil_modules/counter_db.h"
#include "tests/datapath/datapath_test.h"

namespace openflow_test {
namespace {

class Walk : public DataPath {};

Flow any() { return Flow(1, 10).counters(kPackets, kByteCount); }

InputPacket startingAt(uint16_t table, uint16_t port = 7) {
  return InputPacket(Frame::eth().ipv4(kIpA, kIpB).tcp(port, 80),
                     MetadataBlock{}.withStartTable(table));
}

TEST_F(Walk, EmptyBatch) {
  add(0, {any().output({1})});
  const RunResult result = run({});
  EXPECT_EQ(result, RunResult{});
}

TEST_F(Walk, NoStartTableMeansZero) {
  add(0, {any().output({1})});
  add(7, {any().output({2})});
  MetadataBlock block;
  block.startTable = 7;  // not valid
  const RunResult result = run({tcpFrame(), InputPacket(tcpFrame(), block)});
  EXPECT_EQ(result.gate(1).size(), 2u);
  EXPECT_EQ(result.numEmitted(), 2u);
  EXPECT_EQ(result.drops, 2u);
}

TEST_F(Walk, EmptyBatchIsNoBatchForTableZero) {
  const RunResult result = run({});
  EXPECT_TRUE(result.tables.empty()) << result;
}

// Beside a packet that has one.
TEST_F(Walk, StartTableThatIsNotValidMeansZero) {
  add(0, {Flow(1, 10).output({1})});
  add(5, {Flow(2, 10).output({2})});
  MetadataBlock stale = MetadataBlock{}.withStartTable(5);
  stale.flags = 0;
  const RunResult result =
      run({InputPacket(tcpFrame(), MetadataBlock{}.withStartTable(5)),
           InputPacket(tcpFrame(), stale)});
  EXPECT_EQ(result.gate(1).size(), 1u);
  EXPECT_EQ(result.gate(2).size(), 1u);
}

TEST_F(Walk, StartTablesAreVisitedInAscendingOrder) {
  add(2, {any().output({1})});
  add(7, {any().output({1})});
  const RunResult result = run(
      {startingAt(7, 1), startingAt(2, 2), startingAt(7, 3), startingAt(2, 4)});
  ASSERT_EQ(result.gate(1).size(), 4u);
  const uint16_t expected[] = {2, 4, 1, 3};
  for (size_t i = 0; i < 4; i++) {
    EXPECT_EQ(get16(&result.gate(1)[i].bytes[34]), expected[i]);
  }
  EXPECT_EQ(result.drops, 4u);
  EXPECT_TRUE(result.tables.empty());
}

TEST_F(Walk, EachTableSeesItsOwnPackets) {
  add(2, {any().ipProto(17).output({1})});
  const RunResult result = run({startingAt(2), startingAt(7), startingAt(31)});
  EXPECT_EQ(result.table(2).tableMisses, 1u);
  EXPECT_EQ(result.table(7).noClassifier, 1u);
  EXPECT_EQ(result.table(7).batchDrops, 1u);
  EXPECT_EQ(result.table(31).noClassifier, 1u);
  EXPECT_EQ(result.drops, 1u);
  EXPECT_EQ(result.leakedPackets, 0);
}

TEST_F(Walk, StartTableBeyondTheLastDropsThePacket) {
  add(0, {any().output({1})});
  for (const uint16_t table : {32, 33, 255, 256, 0xffff}) {
    const RunResult result = run({startingAt(table), tcpFrame()});
    EXPECT_EQ(result.gate(1).size(), 1u) << table;
    EXPECT_EQ(result.drops, 2u) << table;
    EXPECT_TRUE(result.tables.empty()) << table << result;
    EXPECT_EQ(result.leakedPackets, 0) << table;
  }
}

TEST_F(Walk, MissHasNoOtherEffect) {
  add(0, {any().ipProto(17).trap(1).gotoTable(1)});
  add(1, {any().output({1})});
  const RunResult result = run({tcpFrame(), tcpFrame(), tcpFrame()});
  EXPECT_EQ(result.numEmitted(), 0u);
  EXPECT_EQ(result.table(0).tableMisses, 3u);
  EXPECT_EQ(result.table(1), TableCounters{});
  EXPECT_TRUE(result.flowCounters.empty());
  EXPECT_EQ(result.drops, 3u);
}

TEST_F(Walk, NoActionsCountAsNoOutput) {
  add(0, {any()});
  const RunResult result = run({tcpFrame(), tcpFrame()});
  EXPECT_EQ(result.table(0).noOutputDrops, 2u);
  EXPECT_EQ(result.table(0).dropActions, 0u);
  EXPECT_EQ(result.flowCounters.at(kPackets), 2u);
  EXPECT_EQ(result.drops, 2u);
}

TEST_F(Walk, RewritesAloneCountAsNoOutput) {
  add(0, {any().decTtl().popVlan().setEthDst(kSrcMac)});
  EXPECT_EQ(run({tcpFrame()}).table(0).noOutputDrops, 1u);
}

TEST_F(Walk, EmptyOutputListIsAnOutput) {
  add(0, {any().output({})});
  const RunResult result = run({tcpFrame()});
  EXPECT_TRUE(result.tables.empty()) << result;
  EXPECT_EQ(result.drops, 1u);
}

TEST_F(Walk, GatesWithoutAFlagAreNoOutput) {
  Flow flow = any().output({1});
  flow.message().mutable_action()->mutable_fields()->clear_setoutputport();
  add(0, {flow});
  const RunResult result = run({tcpFrame()});
  EXPECT_EQ(result.table(0).noOutputDrops, 1u);
  EXPECT_EQ(result.numEmitted(), 0u);
}

TEST_F(Walk, ExplicitDrop) {
  add(0, {any().drop()});
  const RunResult result = run({tcpFrame(), tcpFrame()});
  EXPECT_EQ(result.table(0).dropActions, 2u);
  EXPECT_EQ(result.table(0).noOutputDrops, 0u);
  EXPECT_EQ(result.drops, 2u);
}

TEST_F(Walk, GotoAloneIsNoDrop) {
  add(0, {any().gotoTable(1)});
  add(1, {any().output({1})});
  EXPECT_TRUE(run({tcpFrame()}).tables.empty());
}

TEST_F(Walk, BatchDropsCountBatches) {
  const RunResult result = run(std::vector<InputPacket>(32, tcpFrame()));
  EXPECT_EQ(result.table(0).batchDrops, 1u);
  EXPECT_EQ(result.table(0).noClassifier, 1u);
  EXPECT_EQ(result.drops, 0u);
  EXPECT_EQ(result.leakedPackets, 0);
}

TEST_F(Walk, StatisticsShowTheCounters) {
  add(0, {any().ipProto(17).output({1})});
  const auto before = harness().stats(0);
  run({tcpFrame(), tcpFrame()});
  const auto after = harness().stats(0);
  EXPECT_EQ(after.tablemisses(), before.tablemisses() + 2);
  EXPECT_EQ(after.numflows(), 1u);
  EXPECT_EQ(after.reserved1(), 0u);
  EXPECT_EQ(after.reserved2(), 0u);
  EXPECT_EQ(after.sparecounter(), 0u);
  quil::pb::OpenFlowGetStatsRespArg again = harness().stats(0);
  EXPECT_EQ(again.SerializeAsString(), after.SerializeAsString());
}

// ---- Flow counters.

TEST_F(Walk, BytesAreThoseReceived) {
  add(0, {any().setVlanVid(5).trap(1).output({1})});
  const RunResult result = run({tcpFrame().payload(100), tcpFrame()});
  EXPECT_EQ(result.flowCounters.at(kPackets), 2u);
  EXPECT_EQ(result.flowCounters.at(kByteCount), 54u + 154);
}

TEST_F(Walk, BytesOfAChainedPacketAreAllSegments) {
  add(0, {any().output({1})});
  InputPacket packet(tcpFrame().payload(400 - 54));
  packet.segments = {100, 100, 200};
  EXPECT_EQ(run({packet}).flowCounters.at(kByteCount), 400u);
}

TEST_F(Walk, OneCounterForPacketsAndBytes) {
  add(0, {any().counters(3, 3).drop()});
  EXPECT_EQ(run({tcpFrame()}).flowCounters.at(3), 55u);
}

TEST_F(Walk, CountersBeyondTheArrayCountNothing) {
  add(0, {any().counters(1024, 0xffffffff).output({1})});
  const RunResult result = run({tcpFrame()});
  EXPECT_TRUE(result.flowCounters.empty());
  EXPECT_EQ(result.gate(1).size(), 1u);
}

TEST_F(Walk, LastCounterOfTheArray) {
  add(0, {any().counters(1023, 1022).output({1})});
  const RunResult result = run({tcpFrame()});
  EXPECT_EQ(result.flowCounters.at(1023), 1u);
  EXPECT_EQ(result.flowCounters.at(1022), 54u);
}

TEST_F(Walk, EveryWorkerHasItsOwnCounters) {
  add(0, {any().counters(20, 21).output({1})});
  for (const int wid : {0, 3, 15}) {
    const RunResult result = run({tcpFrame()}, wid);
    EXPECT_EQ(result.gate(1).size(), 1u) << wid;
    EXPECT_EQ(result.drops, 1u) << wid;
    EXPECT_EQ(result.flowCounters.at(20), 1u) << wid;
  }
  EXPECT_EQ(harness().flowCounter(20, 0), 1u);
  EXPECT_EQ(harness().flowCounter(20, 3), 1u);
  EXPECT_EQ(harness().flowCounter(20, 15), 1u);
  EXPECT_EQ(harness().flowCounter(21, 3), 54u);
}

TEST(WorkerWithoutCounters, CountsNothingAndSendsAll) {
  ModuleHarness harness;
  harness.addFlows(0, {any().counters(20, 21).output({1})});
  EXPECT_EQ(harness.run({tcpFrame()}).flowCounters.at(20), 1u);
  harness.onCommandThread([] { QuilModules::bessCounterDb.destroy(0); });
  ASSERT_EQ(QuilModules::bessCounterDb[0], nullptr);
  const RunResult result = harness.run({tcpFrame()});
  EXPECT_EQ(result.gate(1).size(), 1u);
  EXPECT_EQ(result.drops, 1u);
  EXPECT_TRUE(result.flowCounters.empty());
  EXPECT_TRUE(result.tables.empty()) << result;
}

// ---- Flows change between batches.

TEST_F(Walk, ChangedFlowTakesEffectWithTheNextBatch) {
  add(0, {any().output({1})});
  runOne(tcpFrame(), 1);
  add(0, {any().output({2})});
  runOne(tcpFrame(), 2);
  EXPECT_EQ(harness().stats(0).numflows(), 1u);
}

}  // namespace
}  // namespace openflow_test
