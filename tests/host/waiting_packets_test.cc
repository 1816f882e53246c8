// SPDX-License-Identifier: BSD-3-Clause
// Packets that are emitted while their task does not run: they wait in the
// gates, for the task's next run or for the end of the gate or the task.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "emitting_fixture.h"

namespace {

using bess::Packet;
using bess::PacketBatch;
using testing::ElementsAre;

using WaitingPacketsTest = EmittingTest;

TEST_F(WaitingPacketsTest, GoWithTheNextRun) {
  Sink* sink = MakeSink("sink");
  Connect(probe_, 0, sink, 0);
  Context* ctx = worker_.context();
  ctx->task = probe_->task();
  for (const std::string& text : Numbers(0, 40)) {
    Emit(ctx, text, {0});
  }
  probe_->on_run = [&](Context* run_ctx, PacketBatch*) {
    Emit(run_ctx, "40", {0});
  };
  Run();
  EXPECT_EQ(Texts(sink->Take()), Numbers(0, 41));
}

// Whole batches, too, which wait in no gate.
TEST_F(WaitingPacketsTest, BatchesGoBeforeWhatTheNextRunSends) {
  Sink* sink = MakeSink("sink");
  Connect(probe_, 0, sink, 0);
  PacketBatch* batch = probe_->task()->AllocPacketBatch();
  batch->add(MakePacket("a"));
  batch->add(MakePacket("b"));
  probe_->task()->AddToRun(sink->igates()[0], batch);
  probe_->on_run = [&](Context* ctx, PacketBatch*) { Emit(ctx, "c", {0}); };
  Run();
  EXPECT_THAT(Texts(sink->Take()), ElementsAre("a", "b", "c"));
}

// Of the gates that wait, whichever it is in their row.
TEST_F(WaitingPacketsTest, AreFreedWithTheLink) {
  Sink* sink = MakeSink("sink");
  for (const gate_idx_t cut : {0, 1, 2}) {
    for (const gate_idx_t gate : {0, 1, 2, 3}) Connect(probe_, gate, sink, 0);
    const size_t before = pool_->available();
    const uint64_t ended = probe_->deadends(0);
    Context* ctx = worker_.context();
    ctx->task = probe_->task();
    Emit(ctx, "a", {0, 1, 2});
    EXPECT_EQ(pool_->available(), before - 3);
    bess::DisconnectModules("probe", cut);
    EXPECT_EQ(pool_->available(), before - 2);
    Emit(ctx, "b", {2, 1, 0});
    Emit(ctx, "c", {3});
    Run();
    EXPECT_THAT(Texts(sink->Take()), ElementsAre("a", "b", "a", "b", "c"));
    EXPECT_EQ(probe_->deadends(0), ended + 1);
    for (const gate_idx_t gate : {0, 1, 2, 3}) {
      if (gate != cut) bess::DisconnectModules("probe", gate);
    }
  }
}

// Two tasks of a worker that emit outside of a run: the gate goes on in the
// hands of the first, and with its next run.
TEST_F(WaitingPacketsTest, AGateBelongsToTheTaskThatBegan) {
  Sink* sink = MakeSink("sink");
  Connect(probe_, 0, sink, 0);
  Probe* other = MakeProbe("other");
  Connect(other, 0, sink, 1);
  other->on_run = [&](Context* run_ctx, PacketBatch*) {
    other->EmitPacket(run_ctx, MakePacket("other's"), 0);
  };
  Context* ctx = worker_.context();
  ctx->task = probe_->task();
  for (const std::string& text : Numbers(0, 30)) Emit(ctx, text, {0});
  ctx->task = other->task();
  for (const std::string& text : Numbers(30, 40)) Emit(ctx, text, {0});
  worker_.Run(other->task());
  EXPECT_THAT(Texts(sink->Take()), ElementsAre("other's"));
  Run();
  EXPECT_EQ(Texts(sink->Take()), Numbers(0, 40));
}

// Whichever task has run in between.
TEST_F(WaitingPacketsTest, AreOfTheirTask) {
  Probe* next = MakeProbe("next");
  Probe* other = MakeProbe("other");
  Connect(probe_, 0, next, 0);
  std::vector<Task*> tasks;
  next->on_batch = [&](Context* ctx, PacketBatch* batch) {
    tasks.push_back(ctx->task);
    Packet::Free(batch);
  };
  Context* ctx = worker_.context();
  ctx->task = probe_->task();
  Emit(ctx, "a", {0});
  worker_.Run(other->task());
  Run();
  EXPECT_THAT(tasks, ElementsAre(probe_->task()));
}

TEST_F(WaitingPacketsTest, AreFreedWithTheTask) {
  Sink* sink = MakeSink("sink");
  Connect(probe_, 0, sink, 0);
  const size_t before = pool_->available();
  {
    Task task(probe_, nullptr);
    Context ctx;
    ctx.task = &task;
    for (int i = 0; i < 70; i++) {
      Emit(&ctx, "a", {0});
    }
    EXPECT_EQ(pool_->available(), before - 70);
  }
  EXPECT_EQ(pool_->available(), before);
  probe_->on_run = [&](Context* ctx, PacketBatch*) { Emit(ctx, "b", {0}); };
  Run();
  EXPECT_THAT(Texts(sink->Take()), ElementsAre("b"));
}

}  // namespace
