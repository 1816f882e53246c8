// SPDX-License-Identifier: BSD-3-Clause
#include "packet_pool.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

namespace {

using bess::Packet;
using bess::PacketPool;

TEST(PacketPoolTest, HandsOutItsCapacityAndNoMore) {
  PacketPool pool(100);
  EXPECT_EQ(pool.capacity(), 100u);
  EXPECT_EQ(pool.available(), 100u);
  std::vector<Packet*> pkts;
  while (Packet* pkt = pool.Alloc(60)) {
    pkts.push_back(pkt);
  }
  EXPECT_EQ(pkts.size(), 100u);
  EXPECT_EQ(pool.available(), 0u);
  Packet::Free(pkts.data(), pkts.size());
  EXPECT_EQ(pool.available(), 100u);
}

TEST(PacketPoolTest, BulkIsAllOrNothing) {
  PacketPool pool(10, 0);
  Packet* pkts[11];
  EXPECT_FALSE(pool.AllocBulk(pkts, 11));
  EXPECT_EQ(pool.available(), 10u);
  EXPECT_TRUE(pool.AllocBulk(pkts, 10, 99));
  EXPECT_EQ(pkts[9]->total_len(), 99);
  EXPECT_EQ(pkts[9]->head_len(), 99);
  Packet::Free(pkts, 10);
}

TEST(PacketPoolTest, TinyPoolsGetACacheThatFits) {
  PacketPool pool(1);
  Packet* pkt = pool.Alloc();
  EXPECT_NE(pkt, nullptr);
  EXPECT_EQ(pool.Alloc(), nullptr);
  Packet::Free(pkt);
}

TEST(PacketPoolTest, SaysWhatItCouldNotGet) {
  try {
    PacketPool pool(10'000'000);
    FAIL() << "got 25 GB";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(),
                 "cannot make a pool of 10000000 packets (24414 MB) in "
                 "DPDK's 768 MB: Cannot allocate memory");
  }
}

TEST(PacketPoolTest, DefaultIsMadeOnce) {
  PacketPool* pool = PacketPool::Default();
  EXPECT_EQ(PacketPool::Default(), pool);
  EXPECT_FALSE(PacketPool::MakeDefault(1));
  EXPECT_EQ(PacketPool::Default(), pool);
}

}  // namespace
