// SPDX-License-Identifier: BSD-3-Clause
//
// Batches are given back at once where all packets are plain, and one by one
// where they are not: either way every buffer is back in its own pool, once.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "packet.h"
#include "packet_pool.h"

namespace {

using bess::Packet;
using bess::PacketBatch;
using bess::PacketPool;

class PacketFree : public testing::Test {
 protected:
  static constexpr size_t kPackets = 127;

  // A full batch, with `special` in its middle.
  static PacketBatch BatchWith(PacketPool* pool, Packet* special) {
    PacketBatch batch;
    batch.clear();
    while (!batch.full()) {
      batch.add(batch.cnt() == 17 ? special : pool->Alloc(64));
    }
    return batch;
  }

  PacketPool pool_{kPackets, 0};
  PacketPool other_{kPackets, 0};
};

TEST_F(PacketFree, PlainBatchesGoBackWhole) {
  for (const int cnt : {0, 1, 31, 32}) {
    PacketBatch batch;
    batch.clear();
    for (int i = 0; i < cnt; i++) {
      batch.add(pool_.Alloc(64));
    }
    Packet::Free(&batch);
    EXPECT_EQ(pool_.available(), kPackets) << cnt;
    EXPECT_EQ(batch.cnt(), cnt) << "the list stays";
  }
  // None came back twice: all can be had, and are different.
  std::vector<Packet*> all(kPackets);
  ASSERT_TRUE(pool_.AllocBulk(all.data(), kPackets));
  std::sort(all.begin(), all.end());
  EXPECT_EQ(std::unique(all.begin(), all.end()), all.end());
  Packet::Free(all.data(), all.size());
}

TEST_F(PacketFree, ChainsGoBackWithAllTheirSegments) {
  Packet* chain = pool_.Alloc(10);
  ASSERT_EQ(rte_pktmbuf_chain(chain->mbuf(), pool_.Alloc(10)->mbuf()), 0);
  PacketBatch batch = BatchWith(&pool_, chain);
  EXPECT_EQ(pool_.available(), kPackets - 33);
  Packet::Free(&batch);
  EXPECT_EQ(pool_.available(), kPackets);
  EXPECT_EQ(chain->nb_segs(), 1);
  EXPECT_EQ(chain->next(), nullptr);
}

TEST_F(PacketFree, PacketsWithAnotherOwnerStayWithIt) {
  Packet* shared = pool_.Alloc(10);
  rte_mbuf_refcnt_update(shared->mbuf(), 1);
  PacketBatch batch = BatchWith(&pool_, shared);
  Packet::Free(&batch);
  EXPECT_EQ(pool_.available(), kPackets - 1);
  EXPECT_EQ(rte_mbuf_refcnt_read(shared->mbuf()), 1);
  Packet::Free(shared);
  EXPECT_EQ(pool_.available(), kPackets);
}

TEST_F(PacketFree, EachPacketGoesToItsOwnPool) {
  for (const size_t at : {0, 17, 31}) {
    PacketBatch batch;
    batch.clear();
    while (!batch.full()) {
      batch.add((batch.cnt() == static_cast<int>(at) ? other_ : pool_).Alloc());
    }
    EXPECT_EQ(other_.available(), kPackets - 1);
    Packet::Free(&batch);
    EXPECT_EQ(pool_.available(), kPackets) << at;
    EXPECT_EQ(other_.available(), kPackets) << at;
  }
}

TEST_F(PacketFree, BorrowedBuffersAreGivenBack) {
  Packet* lender = other_.Alloc(10);
  Packet* borrower = pool_.Alloc(0);
  rte_pktmbuf_attach(borrower->mbuf(), lender->mbuf());
  ASSERT_EQ(rte_mbuf_refcnt_read(lender->mbuf()), 2);
  PacketBatch batch = BatchWith(&pool_, borrower);
  Packet::Free(&batch);
  EXPECT_EQ(pool_.available(), kPackets);
  EXPECT_EQ(rte_mbuf_refcnt_read(lender->mbuf()), 1);
  EXPECT_EQ(borrower->mbuf()->ol_flags, 0u);
  Packet::Free(lender);
  EXPECT_EQ(other_.available(), kPackets);
}

int buffersReturned = 0;

TEST_F(PacketFree, BuffersFromOutsideGoToWhoeverGaveThem) {
  alignas(64) static char buffer[256];
  rte_mbuf_ext_shared_info info = {};
  info.free_cb = [](void*, void*) { buffersReturned++; };
  rte_mbuf_ext_refcnt_set(&info, 1);
  Packet* guest = pool_.Alloc(0);
  rte_pktmbuf_attach_extbuf(guest->mbuf(), buffer, 0, sizeof(buffer), &info);
  PacketBatch batch = BatchWith(&pool_, guest);
  Packet::Free(&batch);
  EXPECT_EQ(buffersReturned, 1);
  EXPECT_EQ(pool_.available(), kPackets);
  EXPECT_EQ(guest->mbuf()->ol_flags, 0u);
  EXPECT_NE(guest->mbuf()->buf_addr, buffer);
}

}  // namespace
