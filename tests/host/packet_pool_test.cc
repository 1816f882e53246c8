// SPDX-License-Identifier: BSD-3-Clause
#include "packet_pool.h"

#include <gtest/gtest.h>
#include <rte_eal.h>
#include <rte_malloc.h>
#include <rte_mbuf.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <set>
#include <span>
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
  for (const uint16_t len : {99, 0, 2048}) {
    ASSERT_TRUE(pool.AllocBulk(pkts, 10, len));
    for (Packet* pkt : std::span(pkts, 10)) {
      EXPECT_EQ(pkt->total_len(), len);
      EXPECT_EQ(pkt->head_len(), len);
      EXPECT_EQ(pkt->headroom(), Packet::kHeadroom);
      EXPECT_EQ(pkt->tag(), 0u) << "of the packet that was there before";
      pkt->set_tag(5);
    }
    Packet::Free(pkts, 10);
  }
}

TEST(PacketPoolTest, TinyPoolsGetACacheThatFits) {
  PacketPool pool(1);
  Packet* pkt = pool.Alloc();
  EXPECT_NE(pkt, nullptr);
  EXPECT_EQ(pool.Alloc(), nullptr);
  Packet::Free(pkt);
}

TEST(PacketPoolTest, CachesAreAsLargeAsAskedForAndAsFits) {
  EXPECT_EQ(PacketPool(1000).mempool()->cache_size, 256u);
  EXPECT_EQ(PacketPool(1000, 0).mempool()->cache_size, 0u);
  EXPECT_EQ(PacketPool(1000, 300).mempool()->cache_size, 300u);
  EXPECT_EQ(PacketPool(1000, 600).mempool()->cache_size, 512u);
  EXPECT_EQ(PacketPool(300, 256).mempool()->cache_size, 200u);
}

// At the same place of each page, packets would share a few lines of the
// processor's first cache.
TEST(PacketPoolTest, PacketsLieAtDifferentPlacesOfTheirPages) {
  PacketPool pool(63, 0);
  Packet* pkts[32];
  ASSERT_TRUE(pool.AllocBulk(pkts, 32));
  std::set<uintptr_t> places;
  for (const Packet* pkt : pkts) {
    places.insert(reinterpret_cast<uintptr_t>(pkt) % 4096);
  }
  EXPECT_GT(places.size(), 16u);
  Packet::Free(pkts, 32);
}

TEST(PacketPoolTest, DevicesSeeThePacketsWhereTheProcessDoes) {
  ASSERT_EQ(rte_eal_iova_mode(), RTE_IOVA_VA);
  PacketPool pool(3, 0);
  Packet* pkts[3];
  ASSERT_TRUE(pool.AllocBulk(pkts, 3));
  for (Packet* pkt : pkts) {
    EXPECT_EQ(rte_mbuf_iova_get(pkt->mbuf()),
              reinterpret_cast<uintptr_t>(pkt->mbuf()->buf_addr));
    EXPECT_EQ(rte_mempool_virt2iova(pkt), reinterpret_cast<uintptr_t>(pkt));
  }
  Packet::Free(pkts, 3);
}

// What a packet's memory held before must not be read as valid metadata. The
// pool leaves that to DPDK's initialisation of a packet.
TEST(PacketPoolTest, PrivateAreasStartZeroed) {
  PacketPool pool(1, 0);
  Packet* pkt = pool.Alloc();
  ASSERT_NE(pkt, nullptr);
  const auto bytes = std::as_writable_bytes(std::span(pkt, 1))
                         .subspan(sizeof(rte_mbuf), Packet::kPrivateSize);
  EXPECT_EQ(std::ranges::count(bytes, std::byte{0}), Packet::kPrivateSize);
  std::ranges::fill(bytes, std::byte{0xff});
  rte_pktmbuf_init(pkt->mbuf()->pool, nullptr, pkt->mbuf(), 0);
  EXPECT_EQ(std::ranges::count(bytes, std::byte{0}), Packet::kPrivateSize);
  Packet::Free(pkt);
}

TEST(PacketPoolTest, GivesBackAllItsMemory) {
  rte_malloc_socket_stats before;
  rte_malloc_socket_stats after;
  rte_malloc_get_socket_stats(0, &before);
  { PacketPool pool(10'000); }
  EXPECT_THROW(PacketPool(400'000), std::runtime_error)
      << "almost all there is";
  EXPECT_THROW(PacketPool(10'000'000), std::runtime_error);
  rte_malloc_get_socket_stats(0, &after);
  EXPECT_EQ(after.heap_allocsz_bytes, before.heap_allocsz_bytes);
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
  EXPECT_FALSE(PacketPool::MakeDefault(pool->capacity() + 1));
  EXPECT_EQ(PacketPool::Default(), pool);
}

}  // namespace
