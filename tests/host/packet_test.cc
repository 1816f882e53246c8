// SPDX-License-Identifier: BSD-3-Clause
#include "packet.h"

#include "packet_fixture.h"

namespace {

using bess::Packet;
using bess::PacketBatch;

TEST_F(PacketTest, LiesOverTheMbuf) {
  Packet* pkt = pool_.Alloc();
  auto* base = reinterpret_cast<char*>(pkt);
  EXPECT_EQ(reinterpret_cast<char*>(pkt->mbuf()), base);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(pkt) % 64, 0u);
  EXPECT_EQ(pkt->immutable<const char*>(), base + 128);
  EXPECT_EQ(pkt->metadata<char*>(), base + 192);
  EXPECT_EQ(pkt->scratchpad<char*>(), base + 320);
  EXPECT_EQ(pkt->mbuf()->buf_addr, base + 384);
  EXPECT_EQ(pkt->head_data<char*>(), base + 512);
  EXPECT_EQ(pkt->mbuf()->priv_size, 256);
  EXPECT_EQ(pkt->mbuf()->buf_len, 128 + 2048);
  EXPECT_EQ(pkt->headroom(), 128);
  EXPECT_EQ(pkt->tailroom(), 2048);
  Packet::Free(pkt);
}

TEST_F(PacketTest, HeadDataTakesAnOffset) {
  Packet* pkt = Make("abcd");
  EXPECT_EQ(*pkt->head_data<char*>(), 'a');
  EXPECT_EQ(*pkt->head_data<const char*>(2), 'c');
  EXPECT_EQ(pkt->head_data(), static_cast<void*>(pkt->head_data<char*>()));
  Packet::Free(pkt);
}

TEST_F(PacketTest, PrependTakesHeadroomAndNoMore) {
  Packet* pkt = Make("abcd");
  char* head = pkt->head_data<char*>();
  EXPECT_EQ(pkt->prepend(22), head - 22);
  EXPECT_EQ(pkt->head_data<char*>(), head - 22);
  EXPECT_EQ(pkt->total_len(), 26);
  EXPECT_EQ(pkt->head_len(), 26);
  EXPECT_EQ(pkt->data_len(), 26);
  EXPECT_EQ(pkt->headroom(), 106);
  EXPECT_EQ(pkt->prepend(107), nullptr);
  EXPECT_EQ(pkt->total_len(), 26);
  EXPECT_EQ(pkt->headroom(), 106);
  EXPECT_EQ(pkt->prepend(106), head - 128);
  EXPECT_EQ(pkt->headroom(), 0);
  Packet::Free(pkt);
}

TEST_F(PacketTest, AdjRemovesFromTheFirstSegmentAlone) {
  Packet* pkt = MakeChain({"abcd", "efg"});
  EXPECT_EQ(*static_cast<char*>(pkt->adj(3)), 'd');
  EXPECT_EQ(pkt->head_len(), 1);
  EXPECT_EQ(pkt->total_len(), 4);
  EXPECT_EQ(pkt->headroom(), 131);
  EXPECT_EQ(pkt->adj(2), nullptr);
  EXPECT_EQ(Bytes(pkt), "defg");
  EXPECT_NE(pkt->adj(1), nullptr) << "the last byte of the segment";
  EXPECT_EQ(pkt->head_len(), 0);
  EXPECT_EQ(Bytes(pkt), "efg");
  Packet::Free(pkt);
}

TEST_F(PacketTest, AppendWritesBehindTheLastByte) {
  Packet* pkt = Make("abcd");
  memcpy(pkt->append(2), "ef", 2);
  EXPECT_EQ(Bytes(pkt), "abcdef");
  EXPECT_EQ(pkt->tailroom(), 2042);
  EXPECT_EQ(pkt->append(2043), nullptr);
  EXPECT_EQ(pkt->total_len(), 6);
  EXPECT_NE(pkt->append(2042), nullptr);
  EXPECT_EQ(pkt->total_len(), 2048);
  Packet::Free(pkt);
}

TEST_F(PacketTest, AppendToAChainGoesToItsEnd) {
  Packet* pkt = MakeChain({"ab", "cd"});
  memcpy(pkt->append(1), "e", 1);
  EXPECT_EQ(Bytes(pkt), "abcde");
  EXPECT_EQ(pkt->head_len(), 2);
  EXPECT_EQ(pkt->next()->head_len(), 3);
  EXPECT_EQ(pkt->total_len(), 5);
  Packet::Free(pkt);
}

TEST_F(PacketTest, LengthsCanBeSet) {
  Packet* pkt = Make("abcdef");
  pkt->set_data_len(3);
  EXPECT_EQ(pkt->head_len(), 3);
  EXPECT_EQ(pkt->total_len(), 6) << "each by itself";
  pkt->set_total_len(3);
  EXPECT_EQ(pkt->head_len(), 3);
  EXPECT_EQ(pkt->total_len(), 3);
  EXPECT_EQ(Bytes(pkt), "abc");
  Packet::Free(pkt);
}

TEST_F(PacketTest, KnowsItsSegments) {
  Packet* two = MakeChain({"ab", "cd"});
  EXPECT_EQ(two->nb_segs(), 2);
  EXPECT_FALSE(two->is_linear());
  Packet::Free(two);
  Packet* pkt = MakeChain({"ab", "cd", "ef"});
  EXPECT_EQ(pkt->nb_segs(), 3);
  EXPECT_FALSE(pkt->is_linear());
  EXPECT_EQ(*pkt->next()->head_data<char*>(), 'c');
  EXPECT_EQ(pkt->next()->next()->next(), nullptr);
  Packet::Free(pkt);
  Packet* linear = Make("ab");
  EXPECT_TRUE(linear->is_linear());
  Packet::Free(linear);
}

TEST_F(PacketTest, FreshPacketsHaveNoMetadataFlags) {
  for (int round = 0; round < 2; round++) {
    Packet* pkts[kPackets];
    ASSERT_TRUE(pool_.AllocBulk(pkts, kPackets, 60));
    for (Packet* pkt : pkts) {
      EXPECT_EQ(Flags(pkt), 0u);
      EXPECT_EQ(pkt->total_len(), 60);
      EXPECT_EQ(pkt->tag(), 0u);
      memset(pkt->metadata<char*>(), 0xff, Packet::kMetadataSize);
      pkt->set_tag(9);
    }
    Packet::Free(pkts, kPackets);
    Packet* one = pool_.Alloc();
    EXPECT_EQ(Flags(one), 0u);
    memset(one->metadata<char*>(), 0xff, Packet::kMetadataSize);
    Packet::Free(one);
  }
}

TEST_F(PacketTest, FreeTakesWholeChainsAndBatches) {
  PacketBatch batch;
  batch.clear();
  batch.add(MakeChain({"a", "b", "c"}));
  batch.add(Make("d"));
  EXPECT_EQ(pool_.available(), kPackets - 4);
  Packet::Free(&batch);
  EXPECT_EQ(pool_.available(), kPackets);
  Packet::Free(MakeChain({"a", "b"}));
  EXPECT_EQ(pool_.available(), kPackets);
  Packet::Free(nullptr, 0);
}

}  // namespace
