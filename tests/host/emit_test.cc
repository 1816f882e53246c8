// SPDX-License-Identifier: BSD-3-Clause
// What becomes of emitted packets: which gate, which batch, which order.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "emitting_fixture.h"

namespace {

using bess::Packet;
using bess::PacketBatch;
using testing::Each;
using testing::ElementsAre;

using EmitTest = EmittingTest;

TEST_F(EmitTest, GoesToTheModuleBehindTheGate) {
  Sink* one = MakeSink("one");
  Sink* two = MakeSink("two");
  Connect(probe_, 1, one, 5);
  Connect(probe_, 8191, two, 8191);
  probe_->on_run = [&](Context* ctx, PacketBatch*) {
    Emit(ctx, "a", {1});
    Emit(ctx, "b", {8191});
    Emit(ctx, "c", {1});
  };
  Run();
  const auto at_one = one->Take();
  EXPECT_THAT(Texts(at_one), ElementsAre("a", "c"));
  EXPECT_EQ(at_one[0].igate, 5);
  EXPECT_EQ(at_one[0].wid, 0);
  const auto at_two = two->Take();
  EXPECT_THAT(Texts(at_two), ElementsAre("b"));
  EXPECT_EQ(at_two[0].igate, 8191);
  EXPECT_EQ(probe_->deadends(0), 0u);
}

// A gate's place among those that have packets is anew in every run.
TEST_F(EmitTest, GatesMayComeInAnotherOrderInEveryRun) {
  Sink* sinks[] = {MakeSink("zero"), MakeSink("one"), MakeSink("two")};
  for (gate_idx_t gate = 0; gate < 3; gate++) {
    Connect(probe_, gate, sinks[gate], 0);
  }
  std::vector<gate_idx_t> order;
  probe_->on_run = [&](Context* ctx, PacketBatch*) {
    for (gate_idx_t gate : order) {
      Emit(ctx, std::to_string(gate), {gate});
    }
  };
  const std::vector<std::vector<gate_idx_t>> orders = {
      {0, 1, 2}, {2, 1, 0}, {1}, {0}, {1, 0}, {2, 0}};
  for (const auto& one : orders) {
    order = one;
    Run();
    std::vector<std::pair<uint64_t, gate_idx_t>> arrived;
    for (gate_idx_t gate = 0; gate < 3; gate++) {
      for (const Sink::Captured& captured : sinks[gate]->Take()) {
        EXPECT_EQ(captured.bytes, std::to_string(gate));
        arrived.emplace_back(captured.order, gate);
      }
    }
    std::sort(arrived.begin(), arrived.end());
    std::vector<gate_idx_t> gates;
    for (const auto& [when, gate] : arrived) {
      gates.push_back(gate);
    }
    EXPECT_EQ(gates, order);
  }
}

TEST_F(EmitTest, DefaultGateIs0) {
  Sink* sink = MakeSink("sink");
  Connect(probe_, 0, sink, 0);
  probe_->on_run = [&](Context* ctx, PacketBatch*) {
    probe_->EmitPacket(ctx, MakePacket("a"));
  };
  Run();
  EXPECT_EQ(sink->count(), 1u);
}

TEST_F(EmitTest, OnlyQueues) {
  Sink* sink = MakeSink("sink");
  Connect(probe_, 0, sink, 0);
  size_t seen_inside = 1;
  probe_->on_run = [&](Context* ctx, PacketBatch*) {
    for (int i = 0; i < 100; i++) {
      Emit(ctx, "a", {0});
    }
    seen_inside = sink->count();
  };
  Run();
  EXPECT_EQ(seen_inside, 0u);
  EXPECT_EQ(sink->count(), 100u);
}

TEST_F(EmitTest, WithoutALinkThePacketIsDropped) {
  Sink* sink = MakeSink("sink");
  Connect(probe_, 3, sink, 0);
  probe_->on_run = [&](Context* ctx, PacketBatch*) {
    Emit(ctx, "never linked", {0});
    Emit(ctx, "beyond the last link", {4});
    Emit(ctx, "last gate", {8191});
    Emit(ctx, "no such gate", {8192});
    Emit(ctx, "no such gate either", {65535});
    Emit(ctx, "linked", {3});
  };
  Run();
  EXPECT_EQ(probe_->deadends(0), 5u);
  EXPECT_EQ(worker_.context()->silent_drops, 5u);
  EXPECT_THAT(Texts(sink->Take()), ElementsAre("linked"));
}

TEST_F(EmitTest, FillsBatchesOf32) {
  Sink* sink = MakeSink("sink");
  Connect(probe_, 0, sink, 0);
  probe_->on_run = [&](Context* ctx, PacketBatch*) {
    for (const std::string& text : Numbers(0, 100)) {
      Emit(ctx, text, {0});
    }
  };
  Run();
  EXPECT_THAT(sink->batches(), ElementsAre(32, 32, 32, 4));
  EXPECT_EQ(Texts(sink->Take()), Numbers(0, 100));
}

TEST_F(EmitTest, AFullBatchIsHandedOnBeforeTheNextOne) {
  Sink* sink = MakeSink("sink");
  Connect(probe_, 0, sink, 0);
  for (int count : {31, 32, 33, 64, 65}) {
    probe_->on_run = [&](Context* ctx, PacketBatch*) {
      for (const std::string& text : Numbers(0, count)) {
        Emit(ctx, text, {0});
      }
    };
    Run();
    EXPECT_EQ(Texts(sink->Take()), Numbers(0, count)) << count;
  }
}

TEST_F(EmitTest, SeveralGatesIntoOneInputGateLoseNothing) {
  Sink* sink = MakeSink("sink");
  constexpr int kGates = 3;
  constexpr int kPackets = 100;
  for (gate_idx_t gate = 0; gate < kGates; gate++) {
    Connect(probe_, gate, sink, 0);
  }
  EXPECT_EQ(sink->igates()[0]->ogates_upstream().size(), 3u);
  probe_->on_run = [&](Context* ctx, PacketBatch*) {
    for (int i = 0; i < kPackets; i++) {
      for (gate_idx_t gate = 0; gate < kGates; gate++) {
        Emit(ctx, std::to_string(gate) + "." + std::to_string(i), {gate});
      }
    }
  };
  Run();
  // In order by gate; all of them; in batches that a module can take.
  std::map<char, std::vector<std::string>> by_gate;
  EXPECT_THAT(sink->batches(), Each(testing::Le(32)));
  for (const std::string& text : Texts(sink->Take())) {
    by_gate[text[0]].push_back(text.substr(2));
  }
  ASSERT_EQ(by_gate.size(), 3u);
  for (const auto& [gate, texts] : by_gate) {
    EXPECT_EQ(texts, Numbers(0, kPackets)) << gate;
    EXPECT_EQ(probe_->ogates()[gate - '0']->packets(), uint64_t{kPackets});
  }
  EXPECT_EQ(probe_->deadends(0), 0u);
}

TEST_F(EmitTest, ReachesAllGatesInOneCall) {
  Sink* sink = MakeSink("sink");
  for (int gate = 0; gate < MAX_GATES; gate++) {
    ASSERT_EQ(probe_->ConnectGate(static_cast<gate_idx_t>(gate), sink,
                                  static_cast<gate_idx_t>(gate)),
              0);
  }
  for (int round = 0; round < 2; round++) {
    probe_->on_run = [&](Context* ctx, PacketBatch*) {
      for (int gate = 0; gate < MAX_GATES; gate++) {
        Emit(ctx, std::to_string(gate), {static_cast<gate_idx_t>(gate)});
        Emit(ctx, std::to_string(gate), {static_cast<gate_idx_t>(gate)});
      }
    };
    Run();
    const auto captured = sink->Take();
    ASSERT_EQ(captured.size(), 2u * MAX_GATES);
    for (size_t i = 0; i < captured.size(); i++) {
      ASSERT_EQ(captured[i].igate, i / 2);
      ASSERT_EQ(captured[i].bytes, std::to_string(i / 2));
    }
  }
  EXPECT_EQ(probe_->task()->overflow_drops(), 0u);
}

TEST_F(EmitTest, SurvivesAFloodFromEveryTable) {
  // 32 packets through 32 tables, each flooding to 64 gates, while the module
  // takes a batch for each table.
  Sink* sink = MakeSink("sink");
  constexpr int kGates = 64;
  for (gate_idx_t gate = 0; gate < kGates; gate++) {
    Connect(probe_, gate, sink, gate);
  }
  probe_->on_run = [&](Context* ctx, PacketBatch*) {
    for (int table = 0; table < 32; table++) {
      ctx->task->AllocPacketBatch();
      for (int i = 0; i < 32; i++) {
        for (gate_idx_t gate = 0; gate < kGates; gate++) {
          Emit(ctx, std::to_string(table * 32 + i), {gate});
        }
      }
    }
  };
  Run();
  std::vector<int> next(kGates, 0);
  const auto captured = sink->Take();
  ASSERT_EQ(captured.size(), 65536u);
  for (const auto& one : captured) {
    ASSERT_EQ(one.bytes, std::to_string(next[one.igate]++));
  }
  EXPECT_EQ(next, std::vector<int>(kGates, 1024));
  EXPECT_EQ(probe_->task()->overflow_drops(), 0u);
  EXPECT_EQ(probe_->deadends(0), 0u);
}

TEST_F(EmitTest, AModuleMayUseItsWholeBatchPoolBesides) {
  Sink* sink = MakeSink("sink");
  for (gate_idx_t gate = 0; gate < 2000; gate++) {
    ASSERT_EQ(probe_->ConnectGate(gate, sink, 0), 0);
  }
  probe_->on_run = [&](Context* ctx, PacketBatch*) {
    for (gate_idx_t gate = 0; gate < 2000; gate++) {
      Emit(ctx, "x", {gate});
    }
    for (int i = 0; i < Task::kPacketBatches; i++) {
      ctx->task->AllocPacketBatch();
    }
  };
  Run();
  EXPECT_EQ(sink->count(), 2000u);
}

TEST_F(EmitTest, ALoopInTheGraphEndsInDrops) {
  // Each packet comes back for ever; the task runs out of batches first.
  Connect(probe_, 0, probe_, 0);
  probe_->on_run = [&](Context* ctx, PacketBatch*) { Emit(ctx, "a", {0}); };
  int rounds = 0;
  probe_->on_batch = [&](Context* ctx, PacketBatch* batch) {
    rounds++;
    for (int i = 0; i < batch->cnt(); i++) {
      probe_->EmitPacket(ctx, batch->pkts()[i], 0);
    }
  };
  Run();
  EXPECT_EQ(rounds, Task::kGateBatches);
  EXPECT_EQ(probe_->task()->overflow_drops(), 1u);
  EXPECT_EQ(probe_->deadends(0), 1u);
  Run();
  EXPECT_EQ(rounds, 2 * Task::kGateBatches);
  EXPECT_EQ(probe_->task()->overflow_drops(), 2u);
}

TEST_F(EmitTest, ModulesInARowKeepTheOrder) {
  Probe* second = MakeProbe("second");
  Sink* sink = MakeSink("sink");
  Connect(probe_, 0, second, 0);
  Connect(second, 0, sink, 0);
  second->on_batch = [&](Context* ctx, PacketBatch* batch) {
    for (int i = 0; i < batch->cnt(); i++) {
      second->EmitPacket(ctx, batch->pkts()[i], 0);
    }
  };
  probe_->on_run = [&](Context* ctx, PacketBatch*) {
    for (const std::string& text : Numbers(0, 75)) {
      Emit(ctx, text, {0});
    }
  };
  Run();
  EXPECT_EQ(Texts(sink->Take()), Numbers(0, 75));
}

// Each of the sixteen has a slot of its own in every gate.
TEST_F(EmitTest, EveryWorkerCollectsByItself) {
  Sink* sink = MakeSink("sink");
  Connect(probe_, 0, sink, 0);
  std::vector<std::unique_ptr<Task>> tasks;
  Context contexts[Worker::kMaxWorkers];
  for (int wid = 0; wid < Worker::kMaxWorkers; wid++) {
    tasks.push_back(std::make_unique<Task>(probe_, nullptr));
    contexts[wid].wid = wid;
    contexts[wid].task = tasks.back().get();
    Emit(&contexts[wid], std::to_string(wid), {0});
  }
  for (int wid = Worker::kMaxWorkers - 1; wid >= 0; wid--) {
    tasks[wid]->RunPending(&contexts[wid]);
    EXPECT_THAT(Texts(sink->Take()), ElementsAre(std::to_string(wid)));
  }
}

TEST_F(EmitTest, WorkersCollectApart) {
  Sink* sink = MakeSink("sink");
  Connect(probe_, 0, sink, 0);
  Task one(probe_, nullptr);
  Task two(probe_, nullptr);
  Context on_one;
  Context on_two;
  on_one.wid = 1;
  on_one.task = &one;
  on_two.wid = 15;
  on_two.task = &two;
  Emit(&on_one, "a", {0});
  Emit(&on_two, "b", {0});
  Emit(&on_one, "c", {0});
  probe_->ProcessOGates(&on_two);
  two.RunPending(&on_two);
  EXPECT_THAT(Texts(sink->Take()), ElementsAre("b"));
  probe_->ProcessOGates(&on_one);
  one.RunPending(&on_one);
  const auto captured = sink->Take();
  EXPECT_THAT(Texts(captured), ElementsAre("a", "c"));
  EXPECT_EQ(captured[0].wid, 1);
}

using EmitDeathTest = EmitTest;

TEST_F(EmitDeathTest, WorkerIndexIsChecked) {
  Sink* sink = MakeSink("sink");
  Connect(probe_, 0, sink, 0);
  for (int wid : {-1, 16}) {
    Context ctx;
    ctx.wid = wid;
    ctx.task = probe_->task();
    EXPECT_DEATH(probe_->EmitPacket(&ctx, nullptr, 0),
                 "Check failed: wid < MAX_WORKERS && wid >= 0");
    EXPECT_DEATH(probe_->DropPacket(&ctx, nullptr),
                 "Check failed: wid < MAX_WORKERS && wid >= 0");
  }
}

}  // namespace
