// SPDX-License-Identifier: BSD-3-Clause
#include "task.h"

#include <gtest/gtest.h>
#include <rte_cycles.h>

#include <set>

#include "probe.h"

namespace {

using bess::PacketBatch;

class TaskTest : public HostTest {
 protected:
  Probe* probe_ = MakeProbe("probe");
  bess::InlineWorker worker_{0};
};

TEST_F(TaskTest, HandsOut1024ClearedBatchesEachRun) {
  for (int round = 0; round < 3; round++) {
    std::set<PacketBatch*> batches;
    probe_->on_run = [&](Context* ctx, PacketBatch* own) {
      EXPECT_TRUE(own->empty());
      batches.insert(own);
      for (int i = 0; i < 1024; i++) {
        PacketBatch* batch = ctx->task->AllocPacketBatch();
        EXPECT_TRUE(batch->empty());
        batch->set_cnt(32);  // must not be seen by the next run
        batches.insert(batch);
      }
    };
    worker_.Run(probe_->task());
    EXPECT_EQ(batches.size(), 1025u);
  }
}

TEST_F(TaskTest, PoolIsRewoundOnlyWhenARunStarts) {
  // The modules of one run share it.
  Probe* next = MakeProbe("next");
  Connect(probe_, 0, next, 0);
  PacketBatch* first = nullptr;
  PacketBatch* second = nullptr;
  PacketBatch* next_run = nullptr;
  probe_->on_run = [&](Context* ctx, PacketBatch*) {
    (first == nullptr ? first : next_run) = ctx->task->AllocPacketBatch();
    probe_->EmitPacket(ctx, MakePacket("x"), 0);
  };
  next->on_batch = [&](Context* ctx, PacketBatch* batch) {
    second = ctx->task->AllocPacketBatch();
    bess::Packet::Free(batch);
  };
  worker_.Run(probe_->task());
  EXPECT_NE(second, first);
  worker_.Run(probe_->task());
  EXPECT_EQ(next_run, first);
}

using TaskDeathTest = TaskTest;

TEST_F(TaskDeathTest, The1025thBatchIsFatal) {
  Task task(probe_, nullptr);
  for (int i = 0; i < 1024; i++) {
    task.AllocPacketBatch();
  }
  EXPECT_DEATH(task.AllocPacketBatch(), "Check failed: pbatch_idx_ < 1024");
}

TEST_F(TaskTest, SetsTheContext) {
  Context seen;
  const uint64_t before = rte_rdtsc();
  probe_->on_run = [&](Context* ctx, PacketBatch*) { seen = *ctx; };
  worker_.Run(probe_->task());
  EXPECT_EQ(seen.task, probe_->task());
  EXPECT_EQ(seen.wid, 0);
  EXPECT_GE(seen.current_tsc, before);
  EXPECT_LE(seen.current_tsc, rte_rdtsc());
  const double ns = static_cast<double>(seen.current_tsc) * 1e9 /
                    static_cast<double>(rte_get_tsc_hz());
  EXPECT_NEAR(static_cast<double>(seen.current_ns), ns, ns * 1e-9);
}

TEST_F(TaskTest, SetsTheInputGate) {
  Probe* next = MakeProbe("next");
  Connect(probe_, 0, next, 17);
  Connect(probe_, 1, next, 8191);
  std::vector<gate_idx_t> gates;
  next->on_batch = [&](Context* ctx, PacketBatch* batch) {
    gates.push_back(ctx->current_igate);
    bess::Packet::Free(batch);
  };
  probe_->on_run = [&](Context* ctx, PacketBatch*) {
    probe_->EmitPacket(ctx, MakePacket("x"), 1);
    probe_->EmitPacket(ctx, MakePacket("x"), 0);
  };
  worker_.Run(probe_->task());
  EXPECT_EQ(gates, (std::vector<gate_idx_t>{8191, 17}));
}

// The gate of the last batch of the run before is not the run's.
TEST_F(TaskTest, ARunStartsAtInputGate0) {
  Probe* next = MakeProbe("next");
  Connect(probe_, 0, next, 17);
  std::vector<gate_idx_t> gates;
  probe_->on_run = [&](Context* ctx, PacketBatch*) {
    gates.push_back(ctx->current_igate);
    probe_->EmitPacket(ctx, MakePacket("x"), 0);
  };
  next->on_batch = [&](Context* ctx, PacketBatch* batch) {
    gates.push_back(ctx->current_igate);
    bess::Packet::Free(batch);
  };
  worker_.Run(probe_->task());
  worker_.Run(probe_->task());
  EXPECT_EQ(gates, (std::vector<gate_idx_t>{0, 17, 0, 17}));
}

TEST_F(TaskTest, AddToRunQueuesForTheModuleBehindTheGate) {
  Sink* sink = MakeSink("sink");
  Connect(probe_, 0, sink, 4);
  PacketBatch* batch = probe_->task()->AllocPacketBatch();
  batch->add(MakePacket("x"));
  probe_->task()->AddToRun(sink->igates()[4], batch);
  EXPECT_EQ(sink->count(), 0u);
  Context ctx;
  probe_->task()->RunPending(&ctx);
  const auto captured = sink->Take();
  ASSERT_EQ(captured.size(), 1u);
  EXPECT_EQ(captured[0].igate, 4);
}

TEST_F(TaskTest, AFullQueueTakesNoMore) {
  Probe* next = MakeProbe("next");
  Connect(probe_, 0, next, 0);
  int batches = 0;
  next->on_batch = [&](Context*, PacketBatch*) { batches++; };
  const size_t before = pool_->available();
  Task task(probe_, nullptr);
  PacketBatch empty;
  empty.clear();
  for (int i = 0; i < Task::kQueueLength; i++) {
    task.AddToRun(next->igates()[0], &empty);
  }
  PacketBatch late;
  late.clear();
  late.add(MakePacket("a"));
  late.add(MakePacket("b"));
  task.AddToRun(next->igates()[0], &late);
  EXPECT_TRUE(late.empty());
  EXPECT_EQ(task.overflow_drops(), 2u);
  EXPECT_EQ(pool_->available(), before);
  Context ctx;
  task.RunPending(&ctx);
  EXPECT_EQ(batches, Task::kQueueLength);
}

TEST_F(TaskTest, FreesWhatIsStillOnItsWay) {
  Sink* sink = MakeSink("sink");
  Connect(probe_, 0, sink, 0);
  const size_t before = pool_->available();
  Context ctx;
  ctx.task = probe_->task();
  for (int i = 0; i < 40; i++) {
    probe_->EmitPacket(&ctx, MakePacket("x"), 0);
  }
  probe_->DropPacket(&ctx, MakePacket("x"));
  PacketBatch* batch = probe_->task()->AllocPacketBatch();
  batch->add(MakePacket("x"));
  probe_->RunNextModule(&ctx, batch);
  EXPECT_EQ(pool_->available(), before - 42);
  EXPECT_EQ(probe_->task()->FreePending(), 42u);
  EXPECT_EQ(pool_->available(), before);
  EXPECT_EQ(probe_->task()->FreePending(), 0u);
  EXPECT_EQ(sink->count(), 0u);
}

}  // namespace
