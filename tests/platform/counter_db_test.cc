// SPDX-License-Identifier: BSD-3-Clause
#include "platform/quil_modules/counter_db.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <urcu-qsbr.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

#include "tests/platform/rte_calls.h"
#include "tests/support/watched.h"

namespace {

using QuilModules::bessCounterDb;
using QuilModules::CounterDb;
using QuilModules::WorkerCounters;

TEST(WorkerCounters, CountsWhatExistsAndNothingElse) {
  WorkerCounters counters(8);
  EXPECT_EQ(counters.size(), 8u);
  counters.add(0, 1);
  counters.add(7, 1500);
  counters.add(7, 64);
  counters.add(8, 1);
  counters.add(std::numeric_limits<uint32_t>::max(), 1);
  EXPECT_EQ(counters.read(0), 1u);
  EXPECT_EQ(counters.read(7), 1564u);
  for (uint32_t id = 1; id < 7; id++) {
    EXPECT_EQ(counters.read(id), 0u);
  }
  EXPECT_EQ(counters.read(8), 0u);
  EXPECT_EQ(counters.read(std::numeric_limits<uint32_t>::max()), 0u);
}

// There is memory behind the last one, up to the end of its line.
TEST(WorkerCounters, CountAPacketAndItsBytes) {
  WorkerCounters counters(8);
  counters.countPacket(0, 7, 1500);
  counters.countPacket(0, 7, 64);
  EXPECT_EQ(counters.read(0), 2u);
  EXPECT_EQ(counters.read(7), 1564u);
  // Each of the two may be missing.
  counters.countPacket(8, 1, 60);
  EXPECT_EQ(counters.read(1), 60u);
  counters.countPacket(2, 8, 60);
  EXPECT_EQ(counters.read(2), 1u);
  counters.countPacket(8, std::numeric_limits<uint32_t>::max(), 60);
  // One counter for both counts both.
  counters.countPacket(3, 3, 60);
  EXPECT_EQ(counters.read(3), 61u);
  for (const uint32_t id : {4, 5, 6}) {
    EXPECT_EQ(counters.read(id), 0u);
  }
}

TEST(WorkerCounters, EndBehindTheLastOne) {
  WorkerCounters counters(7);
  auto* behind = const_cast<std::atomic<uint64_t>*>(counters.data()) + 7;
  counters.add(7, 5);
  EXPECT_EQ(behind->load(), 0u);
  behind->store(5);
  EXPECT_EQ(counters.read(7), 0u);
}

TEST(WorkerCounters, MayBeEmpty) {
  WorkerCounters counters(0);
  counters.add(0, 1);
  EXPECT_EQ(counters.read(0), 0u);
}

TEST(CounterDb, HasNoCountersAtFirst) {
  for (int wid = -1; wid <= 17; wid++) {
    EXPECT_EQ(bessCounterDb[wid], nullptr) << wid;
  }
  EXPECT_EQ(bessCounterDb.sum(0), 0u);
}

TEST(CounterDb, HoldsSixteenWorkers) {
  CounterDb db;
  for (const int wid : {-1, 16, 1000, std::numeric_limits<int>::min()}) {
    EXPECT_FALSE(db.create(wid, 4)) << wid;
    EXPECT_EQ(db[wid], nullptr);
    db.destroy(wid);
  }
  for (int wid = 0; wid < 16; wid++) {
    EXPECT_TRUE(db.create(wid, 4));
    ASSERT_NE(db[wid], nullptr);
    EXPECT_EQ(db[wid]->size(), 4u);
    db[wid]->add(3, 10);
  }
  EXPECT_EQ(db.sum(3), 160u);
  EXPECT_EQ(db.sum(2), 0u);
  EXPECT_EQ(db.sum(4), 0u);
  for (int wid = 0; wid < 16; wid++) {
    db.destroy(wid);
    EXPECT_EQ(db[wid], nullptr);
  }
  EXPECT_EQ(db.sum(3), 0u);
}

TEST(CounterDb, CreatesOnlyOnce) {
  CounterDb db;
  EXPECT_TRUE(db.create(2, 4));
  db[2]->add(0, 5);
  EXPECT_FALSE(db.create(2, 100));
  EXPECT_EQ(db[2]->size(), 4u);
  EXPECT_EQ(db[2]->read(0), 5u);
  db.destroy(2);
  EXPECT_TRUE(db.create(2, 100));
  EXPECT_EQ(db[2]->size(), 100u);
  EXPECT_EQ(db[2]->read(0), 0u);
  db.destroy(2);
}

TEST(CounterDb, DestroysAfterAGracePeriod) {
  CounterDb db;
  ASSERT_TRUE(db.create(15, 4));
  const openflow_test::Watched counters(db[15]);
  RteCalls::log().clear();
  db.destroy(15);
  EXPECT_THAT(RteCalls::log(), testing::ElementsAre(RteCalls::Call{
                                   RteCalls::Kind::kGracePeriod, nullptr}));
  EXPECT_TRUE(counters.deleted());
  db.destroy(15);
  EXPECT_EQ(RteCalls::log().size(), 1u) << "there is nothing to wait for";
}

// A worker looks its counters up for every batch; they go only between two.
TEST(CounterDb, WaitsForTheWorkerBeforeItFrees) {
  CounterDb db;
  ASSERT_TRUE(db.create(1, 4));
  uint64_t counted = 0;
  std::thread worker([&] {
    rcu_register_thread();
    while (WorkerCounters* counters = db[1]) {
      for (int packet = 0; packet < 32; packet++) {
        counters->add(0, 1);
      }
      counted = counters->read(0);
      rcu_quiescent_state();
    }
    rcu_unregister_thread();
  });
  rcu_thread_offline();
  while (db.sum(0) < 10000) {
    std::this_thread::yield();
  }
  rcu_thread_online();
  db.destroy(1);
  rcu_thread_offline();
  worker.join();
  rcu_thread_online();
  EXPECT_GE(counted, 10000u);
  EXPECT_EQ(counted % 32, 0u);
}

// Two workers' counters on one line would make every packet of one wait for the
// other.
TEST(WorkerCounters, ShareNoCacheLineWithAnythingElse) {
  EXPECT_EQ(alignof(WorkerCounters), 64u);
  for (const uint32_t size : {1u, 7u, 8u, 9u, 1000u}) {
    WorkerCounters one(size);
    WorkerCounters other(size);
    const auto begin = [](const WorkerCounters& counters) {
      return reinterpret_cast<uintptr_t>(counters.data());
    };
    EXPECT_EQ(begin(one) % 64, 0u) << size;
    EXPECT_EQ(begin(other) % 64, 0u) << size;
    const uintptr_t apart =
        std::max(begin(one), begin(other)) - std::min(begin(one), begin(other));
    EXPECT_GE(apart, (size * sizeof(uint64_t) + 63) / 64 * 64) << size;
    one.add(size - 1, 5);
    EXPECT_EQ(one.data()[size - 1].load(), 5u);
    EXPECT_EQ(other.read(size - 1), 0u);
    // Nor is anything else put into what is left of the last line.
    std::vector<std::unique_ptr<char[]>> others;
    for (int i = 0; i < 1000; i++) {
      others.push_back(std::make_unique<char[]>(24));
      const auto at = reinterpret_cast<uintptr_t>(others.back().get());
      for (const WorkerCounters* counters : {&one, &other}) {
        ASSERT_NE(at / 64, (begin(*counters) + (size - 1) * 8) / 64) << size;
      }
    }
  }
}

}  // namespace
