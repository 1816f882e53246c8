// SPDX-License-Identifier: BSD-3-Clause
//
// The packet pool runs dry in the middle of a batch: copies that cannot be had
// are left out, everything else goes on, and no buffer is lost.
#include "tests/datapath/datapath_test.h"

namespace openflow_test {
namespace {

class PoolDry : public ::testing::Test {
 protected:
  // Runs the batch with `left` buffers for copies, then gives the others back.
  RunResult runWith(size_t left, const std::vector<InputPacket>& packets) {
    harness_.beforeBatch([this, left] { harness_.drainPool(left); });
    RunResult result = harness_.run(packets);
    harness_.beforeBatch(nullptr);
    harness_.refillPool();
    EXPECT_EQ(result.leakedPackets, 0);
    return result;
  }

  ModuleHarness harness_{HarnessOptions{.poolPackets = 255}};
};

Flow any() { return Flow(1, 10).counters(kPackets, kByteCount); }

const InputPacket kPacket(tcpFrame(), MetadataBlock{}.withInPort(4));

// The copies are made in this order.
const uint16_t kOrder[] = {1, 2, 3, 4, 0};

TEST_F(PoolDry, AsManyCopiesAsThereAreBuffers) {
  harness_.addFlows(
      0, {any().output({1, 2, 3}).outputInPort().trap(7).gotoTable(1)});
  harness_.addFlows(1, {any().counters(12, 13).output({5})});
  for (size_t left = 0; left <= 7; left++) {
    SCOPED_TRACE(left);
    const RunResult result = runWith(left, {kPacket});
    for (size_t i = 0; i < std::size(kOrder); i++) {
      EXPECT_EQ(result.gate(kOrder[i]).size(), i < left ? 1u : 0u);
    }
    const bool wentOn = left >= 6;  // to table 1
    EXPECT_EQ(result.gate(5).size(), left >= 7 ? 1u : 0u);
    EXPECT_EQ(result.drops, wentOn ? 2u : 1u);
    EXPECT_EQ(result.flowCounters.at(kPackets), 1u);
    EXPECT_EQ(result.flowCounters.count(12), wentOn ? 1u : 0u);
    EXPECT_TRUE(result.tables.empty()) << result;
  }
}

TEST_F(PoolDry, OthersOfTheBatchGetWhatIsLeft) {
  harness_.addFlows(0, {any().flood({1, 2, 3})});
  const std::vector<InputPacket> packets(kMaxBatch, kPacket);
  const RunResult result = runWith(10, packets);
  EXPECT_EQ(result.gate(1).size(), 4u);
  EXPECT_EQ(result.gate(2).size(), 3u);
  EXPECT_EQ(result.gate(3).size(), 3u);
  for (const OutputPacket& packet : result.gate(1)) {
    EXPECT_EQ(packet.bytes, kPacket.bytes);
    EXPECT_EQ(packet.meta, MetadataBlock{});
  }
  EXPECT_EQ(result.drops, 32u);
  EXPECT_EQ(result.flowCounters.at(kPackets), 32u);
}

TEST_F(PoolDry, NothingLeftForTrapsNorGoto) {
  harness_.addFlows(0, {any().decTtl().trap(1).gotoTable(1)});
  harness_.addFlows(1, {any().output({1})});
  const RunResult result =
      runWith(0, std::vector<InputPacket>(kMaxBatch, kPacket));
  EXPECT_EQ(result.numEmitted(), 0u);
  EXPECT_EQ(result.drops, 32u);
  EXPECT_TRUE(result.tables.empty()) << result;
}

TEST_F(PoolDry, NothingLeftForTheController) {
  harness_.addFlows(0, {any().controller(1).outputInPort()});
  const RunResult result = runWith(0, {kPacket});
  EXPECT_EQ(result.numEmitted(), 0u);
  EXPECT_EQ(result.drops, 1u);
}

TEST_F(PoolDry, ChainedCopyNeedsAllItsBuffers) {
  harness_.addFlows(0, {any().output({1, 2})});
  const InputPacket packet(tcpFrame().payload(6000));
  const RunResult one = runWith(2, {packet});
  EXPECT_EQ(one.numEmitted(), 0u);
  EXPECT_EQ(one.drops, 1u);
  const RunResult both = runWith(5, {packet});
  EXPECT_EQ(both.gate(1).size(), 1u);
  EXPECT_EQ(both.gate(2).size(), 0u);
  EXPECT_EQ(both.gate(1)[0].bytes, packet.bytes);
}

TEST_F(PoolDry, LifeGoesOn) {
  harness_.addFlows(0, {any().output({1, 2, 3})});
  const size_t before = harness_.freePackets();
  for (int i = 0; i < 50; i++) {
    runWith(static_cast<size_t>(i), {kPacket, kPacket});
  }
  EXPECT_EQ(harness_.freePackets(), before);
  const RunResult result = harness_.run({kPacket});
  EXPECT_EQ(result.numEmitted(), 3u);
  EXPECT_EQ(result.drops, 1u);
}

}  // namespace
}  // namespace openflow_test
