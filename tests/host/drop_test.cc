// SPDX-License-Identifier: BSD-3-Clause
#include <gtest/gtest.h>

#include "probe.h"

namespace {

using bess::PacketBatch;

class DropTest : public HostTest {
 protected:
  DropTest() { ctx_->task = probe_->task(); }

  void Drop(int count) {
    for (int i = 0; i < count; i++) {
      probe_->DropPacket(ctx_, MakePacket("x"));
    }
  }

  Probe* probe_ = MakeProbe("probe");
  bess::InlineWorker worker_{3};
  Context* ctx_ = worker_.context();
};

TEST_F(DropTest, CountsByWorker) {
  Drop(5);
  EXPECT_EQ(probe_->deadends(3), 5u);
  EXPECT_EQ(probe_->deadends(0), 0u);
  Context other;
  other.wid = 15;
  other.task = probe_->task();
  probe_->DropPacket(&other, MakePacket("x"));
  EXPECT_EQ(probe_->deadends(15), 1u);
  const auto counts = probe_->deadends();
  ASSERT_EQ(counts.size(), 16u);
  EXPECT_EQ(counts[3], 5u);
  EXPECT_EQ(counts[15], 1u);
}

TEST_F(DropTest, FreesAt32) {
  const size_t before = pool_->available();
  Drop(31);
  EXPECT_EQ(ctx_->silent_drops, 0u);
  EXPECT_EQ(probe_->task()->dead_batch()->cnt(), 31);
  EXPECT_EQ(pool_->available(), before - 31);
  Drop(1);
  EXPECT_EQ(ctx_->silent_drops, 32u);
  EXPECT_EQ(probe_->task()->dead_batch()->cnt(), 0);
  EXPECT_EQ(pool_->available(), before);
  EXPECT_EQ(probe_->deadends(3), 32u);
}

TEST_F(DropTest, FreesTheRestAtTheEndOfARun) {
  const size_t before = pool_->available();
  probe_->on_run = [&](Context*, PacketBatch*) { Drop(40); };
  worker_.Run(probe_->task());
  EXPECT_EQ(ctx_->silent_drops, 40u);
  EXPECT_EQ(probe_->deadends(3), 40u);
  EXPECT_EQ(pool_->available(), before);
}

TEST_F(DropTest, IsWhatModulesWithoutProcessBatchDo) {
  Probe* last = MakeProbe("last");
  Connect(probe_, 0, last, 0);
  probe_->on_run = [&](Context* ctx, PacketBatch* batch) {
    batch->add(MakePacket("a"));
    batch->add(MakePacket("b"));
    probe_->RunNextModule(ctx, batch);
  };
  worker_.Run(probe_->task());
  EXPECT_EQ(last->deadends(3), 2u);
}

}  // namespace
