// SPDX-License-Identifier: BSD-3-Clause
#include "pktbatch.h"

#include <gtest/gtest.h>

#include <type_traits>

namespace {

using bess::Packet;
using bess::PacketBatch;

static_assert(PacketBatch::kMaxBurst == 32);
static_assert(std::is_trivial_v<PacketBatch>);
static_assert(std::is_standard_layout_v<PacketBatch>);

Packet* Fake(uintptr_t n) { return reinterpret_cast<Packet*>(n * 64); }

TEST(PacketBatchTest, KeepsPacketsInOrder) {
  PacketBatch batch;
  batch.clear();
  EXPECT_TRUE(batch.empty());
  EXPECT_EQ(batch.cnt(), 0);
  batch.add(Fake(1));
  batch.add(Fake(2));
  EXPECT_FALSE(batch.empty());
  EXPECT_EQ(batch.cnt(), 2);
  EXPECT_EQ(batch.pkts()[0], Fake(1));
  EXPECT_EQ(batch.pkts()[1], Fake(2));
}

TEST(PacketBatchTest, IsFullAt32) {
  PacketBatch batch;
  batch.clear();
  for (uintptr_t i = 1; i <= 31; i++) {
    batch.add(Fake(i));
    EXPECT_FALSE(batch.full());
  }
  batch.add(Fake(32));
  EXPECT_TRUE(batch.full());
  EXPECT_EQ(batch.cnt(), 32);
}

TEST(PacketBatchTest, AppendsAnotherBatch) {
  PacketBatch a;
  PacketBatch b;
  a.clear();
  b.clear();
  a.add(Fake(1));
  b.add(Fake(2));
  b.add(Fake(3));
  a.add(&b);
  EXPECT_EQ(a.cnt(), 3);
  EXPECT_EQ(a.pkts()[2], Fake(3));
  EXPECT_EQ(b.cnt(), 2);
}

TEST(PacketBatchTest, CountCanBeSet) {
  PacketBatch batch;
  batch.clear();
  batch.pkts()[0] = Fake(1);
  batch.pkts()[1] = Fake(2);
  batch.set_cnt(1);
  batch.incr_cnt();
  EXPECT_EQ(batch.cnt(), 2);
  batch.incr_cnt(3);
  EXPECT_EQ(batch.cnt(), 5);
}

}  // namespace
