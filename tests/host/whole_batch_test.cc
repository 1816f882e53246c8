// SPDX-License-Identifier: BSD-3-Clause
// RunNextModule and RunChooseModule: batches handed on as they are.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "probe.h"

namespace {

using bess::PacketBatch;
using testing::ElementsAre;

class WholeBatchTest : public HostTest {
 protected:
  void Run() { worker_.Run(probe_->task()); }

  Probe* probe_ = MakeProbe("probe");
  bess::InlineWorker worker_{0};
};

TEST_F(WholeBatchTest, GoesToTheModuleBehindTheGate) {
  Sink* zero = MakeSink("zero");
  Sink* seven = MakeSink("seven");
  Connect(probe_, 0, zero, 0);
  Connect(probe_, 7, seven, 2);
  probe_->on_run = [&](Context* ctx, PacketBatch* batch) {
    PacketBatch* other = ctx->task->AllocPacketBatch();
    batch->add(MakePacket("a"));
    batch->add(MakePacket("b"));
    other->add(MakePacket("c"));
    probe_->RunNextModule(ctx, batch);
    probe_->RunChooseModule(ctx, 7, other);
    EXPECT_EQ(zero->count(), 0u);
  };
  Run();
  EXPECT_THAT(Texts(zero->Take()), ElementsAre("a", "b"));
  EXPECT_EQ(probe_->ogates()[0]->packets(), 2u);
  EXPECT_EQ(probe_->ogates()[7]->packets(), 1u);
  const auto captured = seven->Take();
  EXPECT_THAT(Texts(captured), ElementsAre("c"));
  EXPECT_EQ(captured[0].igate, 2);
}

TEST_F(WholeBatchTest, WithoutALinkItIsDropped) {
  probe_->on_run = [&](Context* ctx, PacketBatch* batch) {
    batch->add(MakePacket("a"));
    batch->add(MakePacket("b"));
    probe_->RunChooseModule(ctx, 9, batch);
    EXPECT_TRUE(batch->empty());
  };
  Run();
  EXPECT_EQ(probe_->deadends(0), 2u);
  EXPECT_EQ(worker_.context()->silent_drops, 2u);
}

// The first number that no gate has.
TEST_F(WholeBatchTest, BehindTheLastLinkItIsDropped) {
  Sink* sink = MakeSink("sink");
  Connect(probe_, 4, sink, 0);
  probe_->on_run = [&](Context* ctx, PacketBatch* batch) {
    batch->add(MakePacket("a"));
    probe_->RunChooseModule(ctx, 5, batch);
    probe_->EmitPacket(ctx, MakePacket("b"), 5);
  };
  Run();
  EXPECT_EQ(probe_->deadends(0), 2u);
  EXPECT_EQ(sink->count(), 0u);
}

TEST_F(WholeBatchTest, EmptyItWakesNobody) {
  Sink* sink = MakeSink("sink");
  Connect(probe_, 0, sink, 0);
  probe_->on_run = [&](Context* ctx, PacketBatch* batch) {
    probe_->RunNextModule(ctx, batch);
  };
  Run();
  EXPECT_TRUE(sink->batches().empty());
}

TEST_F(WholeBatchTest, StaysBehindWhatWasEmittedBefore) {
  Sink* sink = MakeSink("sink");
  Connect(probe_, 0, sink, 0);
  probe_->on_run = [&](Context* ctx, PacketBatch* batch) {
    probe_->EmitPacket(ctx, MakePacket("first"));
    batch->add(MakePacket("second"));
    probe_->RunNextModule(ctx, batch);
    probe_->EmitPacket(ctx, MakePacket("third"));
  };
  Run();
  EXPECT_THAT(Texts(sink->Take()), ElementsAre("first", "second", "third"));
}

TEST_F(WholeBatchTest, ALoopEndsInDrops) {
  Connect(probe_, 0, probe_, 0);
  probe_->on_run = [&](Context* ctx, PacketBatch* batch) {
    batch->add(MakePacket("a"));
    batch->add(MakePacket("b"));
    probe_->RunNextModule(ctx, batch);
  };
  int rounds = 0;
  probe_->on_batch = [&](Context* ctx, PacketBatch* batch) {
    rounds++;
    probe_->RunNextModule(ctx, batch);
  };
  Run();
  EXPECT_EQ(rounds, Task::kQueueLength);
  EXPECT_EQ(probe_->task()->overflow_drops(), 2u);
}

using WholeBatchDeathTest = WholeBatchTest;

TEST_F(WholeBatchDeathTest, WorkerIndexIsChecked) {
  Connect(probe_, 0, MakeSink("sink"), 0);
  bess::Packet* pkt = MakePacket("a");
  PacketBatch batch;
  batch.clear();
  batch.add(pkt);
  for (int wid : {-1, 16}) {
    Context ctx;
    ctx.wid = wid;
    ctx.task = probe_->task();
    EXPECT_DEATH(probe_->RunNextModule(&ctx, &batch),
                 "Check failed: wid < MAX_WORKERS && wid >= 0");
  }
  bess::Packet::Free(pkt);
}

}  // namespace
