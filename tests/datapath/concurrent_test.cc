// SPDX-License-Identifier: BSD-3-Clause
//
// Several workers at once, and commands while they work.
#include <atomic>
#include <thread>

#include "tests/datapath/datapath_test.h"

namespace openflow_test {
namespace {

class Concurrent : public DataPath {};

Flow any() { return Flow(1, 10); }

// Two workers run the same table at once; each one's packets and flow counts
// are exact.
TEST_F(Concurrent, TwoWorkersAtOnce) {
  constexpr int kRuns = 200;
  add(0, {any().counters(30, 31).output({1}).gotoTable(1)});
  add(1, {any().counters(32, 33).decTtl().output({2})});
  const std::vector<InputPacket> packets(kMaxBatch, tcpFrame());
  const auto work = [&](int wid) {
    for (int i = 0; i < kRuns; i++) {
      const RunResult result = harness().run(packets, wid);
      ASSERT_EQ(result.gate(1).size(), kMaxBatch);
      ASSERT_EQ(result.gate(2).size(), kMaxBatch);
      ASSERT_EQ(result.drops, 2 * kMaxBatch);
    }
  };
  std::thread other(work, 5);
  work(4);
  other.join();
  for (const int wid : {4, 5}) {
    EXPECT_EQ(harness().flowCounter(30, wid), kRuns * kMaxBatch);
    EXPECT_EQ(harness().flowCounter(33, wid), kRuns * kMaxBatch * 54);
  }
}

// A lookup uses one classifier for the whole batch: the old one or the new one.
TEST_F(Concurrent, FlowsChangeUnderAWorker) {
  constexpr uint32_t kUpdates = 300;
  harness().addFlows(0, {any().output({1})});
  const std::vector<InputPacket> packets(kMaxBatch, tcpFrame());
  std::atomic<bool> stop = false;
  std::atomic<uint64_t> oldOnes = 0, newOnes = 0;
  std::thread worker([&] {
    while (!stop) {
      const RunResult result = harness().run(packets, 6);
      const size_t first = result.gate(1).size();
      const size_t second = result.gate(2).size();
      ASSERT_TRUE((first == kMaxBatch && second == 0) ||
                  (first == 0 && second == kMaxBatch))
          << result;
      ASSERT_EQ(result.drops, kMaxBatch);
      ASSERT_EQ(result.leakedPackets, 0);
      (first != 0 ? oldOnes : newOnes)++;
    }
  });
  for (uint32_t i = 0; i < kUpdates; i++) {
    harness().addFlows(0, {any().output({1 + i % 2})});
  }
  while ((oldOnes == 0 || newOnes == 0) && !HasFailure()) {
    harness().addFlows(0, {any().output({oldOnes == 0 ? 1u : 2u})});
    std::this_thread::yield();
  }
  stop = true;
  worker.join();
  EXPECT_EQ(harness().stats(0).numflows(), 1u);
  EXPECT_EQ(harness().stats(0).updatefailures(), 0u);
}

// Slots change too: a batch goes by the slot it found.
TEST_F(Concurrent, BindingChangesUnderAWorker) {
  ModuleHarness bench({.firstSlot = 200});
  bench.addFlows(0, {any().output({1})});
  bench.addFlows(1, {any().output({2})});
  const std::vector<InputPacket> packets(kMaxBatch, tcpFrame());
  std::atomic<bool> stop = false;
  std::thread worker([&] {
    while (!stop) {
      const RunResult result = bench.run(packets, 7);
      const size_t first = result.gate(1).size();
      ASSERT_TRUE(first == 0 || first == kMaxBatch) << result;
      ASSERT_EQ(result.numEmitted(), kMaxBatch) << result;
    }
  });
  for (int i = 0; i < 300; i++) {
    bench.setAclIds(0, i % 2 == 0 ? 202 : 200, i % 2 == 0 ? 203 : 201);
  }
  stop = true;
  worker.join();
  EXPECT_EQ(bench.run(packets).gate(1).size(), kMaxBatch);
}

}  // namespace
}  // namespace openflow_test
