// SPDX-License-Identifier: BSD-3-Clause
#include "inline_worker.h"

#include <gtest/gtest.h>
#include <rte_lcore.h>
#include <urcu-qsbr.h>

#include <atomic>
#include <chrono>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "probe.h"

namespace {

using bess::InlineWorker;
using bess::PacketBatch;

class InlineWorkerTest : public HostTest {};

TEST_F(InlineWorkerTest, GivesTheThreadAnLcoreForAsLongAsItLives) {
  std::thread([] {
    EXPECT_EQ(rte_lcore_id(), LCORE_ID_ANY);
    {
      const InlineWorker worker(5);
      EXPECT_NE(rte_lcore_id(), LCORE_ID_ANY);
      EXPECT_TRUE(Worker::Exists(5));
    }
    EXPECT_EQ(rte_lcore_id(), LCORE_ID_ANY);
    EXPECT_FALSE(Worker::Exists(5));
  }).join();
}

TEST_F(InlineWorkerTest, IsOnlineOnlyInsideARun) {
  Probe* probe = MakeProbe("probe");
  bool online = false;
  bool running = false;
  probe->on_run = [&](Context*, PacketBatch*) {
    online = rcu_read_ongoing();
    running = Worker::IsRunning(2);
  };
  std::thread([&] {
    {
      InlineWorker worker(2);
      EXPECT_FALSE(rcu_read_ongoing());
      worker.Run(probe->task());
      EXPECT_FALSE(rcu_read_ongoing());
      EXPECT_FALSE(Worker::IsRunning(2));
    }
    EXPECT_FALSE(rcu_read_ongoing());
  }).join();
  EXPECT_TRUE(online);
  EXPECT_TRUE(running);
}

TEST_F(InlineWorkerTest, LeavesAReaderAsItWas) {
  const bess::QsbrReader reader;
  ASSERT_TRUE(rcu_read_ongoing());
  {
    const InlineWorker worker(2);
    EXPECT_FALSE(rcu_read_ongoing());
  }
  EXPECT_TRUE(rcu_read_ongoing());
}

TEST_F(InlineWorkerTest, AnIndexBelongsToOne) {
  const InlineWorker worker(3);
  EXPECT_THROW(InlineWorker(3), std::runtime_error);
  EXPECT_EQ(Worker::Add(3), "worker 3 exists already");
  EXPECT_EQ(Worker::Stop(3), "there is no worker 3");
  EXPECT_THROW(InlineWorker(16), std::runtime_error);
  EXPECT_THROW(InlineWorker(-1), std::runtime_error);
  ASSERT_EQ(Worker::Add(4), "");
  EXPECT_THROW(InlineWorker(4), std::runtime_error);
}

// Which is a matter of workers that are threads.
TEST_F(InlineWorkerTest, IsNeitherPausedNorResumed) {
  Probe* probe = MakeProbe("probe");
  int runs = 0;
  probe->on_run = [&](Context*, PacketBatch*) { runs++; };
  ASSERT_EQ(Worker::Add(1), "");
  InlineWorker worker(0);
  EXPECT_EQ(Worker::ResumeAll(), "");
  EXPECT_FALSE(Worker::IsRunning(0));
  EXPECT_TRUE(Worker::IsRunning(1));
  Worker::PauseAll();
  worker.Run(probe->task());
  EXPECT_EQ(runs, 1);
  EXPECT_EQ(Worker::List(), (std::vector<int>{0, 1}));
}

TEST_F(InlineWorkerTest, OneThatIsRefusedKeepsNoLcore) {
  const InlineWorker worker(3);
  std::thread([] {
    EXPECT_THROW(InlineWorker(3), std::runtime_error);
    EXPECT_EQ(rte_lcore_id(), LCORE_ID_ANY);
  }).join();
}

// All of DPDK's are taken by threads of others.
TEST_F(InlineWorkerTest, NeedsAnLcore) {
  std::atomic<bool> done = false;
  std::atomic<int> ready = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < RTE_MAX_LCORE; i++) {
    threads.emplace_back([&] {
      const bool registered = rte_thread_register() == 0;
      ready++;
      while (!done) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      if (registered) {
        rte_thread_unregister();
      }
    });
  }
  while (ready < RTE_MAX_LCORE) {
    std::this_thread::yield();
  }
  std::string error;
  std::thread([&] {
    try {
      const InlineWorker worker(5);
    } catch (const std::runtime_error& failure) {
      error = failure.what();
    }
  }).join();
  EXPECT_EQ(error, "DPDK has no lcore left: Cannot allocate memory");
  EXPECT_FALSE(Worker::Exists(5));
  EXPECT_EQ(Worker::Add(5),
            "worker 5: DPDK has no lcore for it: Cannot allocate memory");
  EXPECT_FALSE(Worker::Exists(5));
  done = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
}

TEST_F(InlineWorkerTest, RunsABatchThroughAGate) {
  Probe* probe = MakeProbe("probe");
  Probe* entry = MakeProbe("entry");
  Sink* sink = MakeSink("sink");
  Connect(entry, 0, probe, 6);
  Connect(probe, 0, sink, 0);
  PacketBatch* memory = nullptr;  // of the first run
  uint64_t last_run = 0;
  probe->on_batch = [&](Context* ctx, PacketBatch* batch) {
    EXPECT_EQ(ctx->current_igate, 6);
    EXPECT_EQ(ctx->wid, 9);
    EXPECT_GT(ctx->current_tsc, last_run) << "each run has a time of its own";
    last_run = ctx->current_tsc;
    PacketBatch* first = ctx->task->AllocPacketBatch();
    EXPECT_EQ(first, memory != nullptr ? memory : first);
    memory = first;
    for (int i = 0; i < batch->cnt(); i++) {
      probe->EmitPacket(ctx, batch->pkts()[i], 0);
    }
  };
  InlineWorker worker(9);
  for (int round = 0; round < 3; round++) {
    PacketBatch batch;
    batch.clear();
    batch.add(MakePacket("a"));
    batch.add(MakePacket("b"));
    worker.Run(entry->task(), probe->igates()[6], &batch);
    EXPECT_EQ(Texts(sink->Take()), (std::vector<std::string>{"a", "b"}));
  }
}

TEST_F(InlineWorkerTest, CommandsThatAreNotThreadSafeWorkBetweenRuns) {
  Probe* probe = MakeProbe("probe");
  InlineWorker worker(0);
  ASSERT_EQ(Worker::AttachTasks(probe, 0), "");
  worker.Run(probe->task());
  EXPECT_EQ(bess::RunModuleCommand("probe", "unsafe").error().code(), 0);
}

TEST_F(InlineWorkerTest, TheGraphMayChangeBetweenRuns) {
  // Inline workers that never rest must not keep the graph from changing.
  constexpr int kWorkers = 3;
  Sink* sink = MakeSink("sink");
  std::atomic<bool> stop = false;
  std::atomic<int> running = 0;
  std::vector<std::thread> threads;
  std::vector<Probe*> probes;
  for (int wid = 0; wid < kWorkers; wid++) {
    Probe* probe = MakeProbe("probe" + std::to_string(wid));
    probes.push_back(probe);
    probe->on_run = [probe](Context* ctx, PacketBatch*) {
      probe->EmitPacket(ctx, MakePacket("x"), 0);
    };
    threads.emplace_back([&, probe, wid] {
      InlineWorker worker(wid);
      running++;
      while (!stop) {
        worker.Run(probe->task());
      }
    });
  }
  while (running < kWorkers) {
    std::this_thread::yield();
  }
  for (int i = 0; i < 99; i++) {
    Probe* probe = probes[i % kWorkers];
    Connect(probe, 0, sink, i);
    while (probe->ogates()[0]->packets() == 0) {
      std::this_thread::yield();
    }
    EXPECT_EQ(bess::DisconnectModules(probe->name(), 0).error().code(), 0);
  }
  stop = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
  std::set<gate_idx_t> gates;
  for (const Sink::Captured& one : sink->Take()) {
    EXPECT_EQ(one.wid, one.igate % kWorkers);
    gates.insert(one.igate);
  }
  EXPECT_EQ(gates.size(), 99u);
}

}  // namespace
