// SPDX-License-Identifier: BSD-3-Clause
#include "packet.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "packet_pool.h"

namespace {

using bess::Packet;
using bess::PacketBatch;
using bess::PacketPool;

std::string Bytes(const Packet* pkt) {
  std::string bytes;
  for (int left = pkt->nb_segs(); left > 0; left--, pkt = pkt->next()) {
    bytes.append(pkt->head_data<const char*>(), pkt->head_len());
  }
  return bytes;
}

std::string RandomBytes(size_t size) {
  static std::mt19937 random(1);
  std::string bytes(size, '\0');
  for (char& byte : bytes) {
    byte = static_cast<char>(random());
  }
  return bytes;
}

uint64_t Flags(const Packet* pkt) {
  uint64_t flags;
  memcpy(&flags, pkt->metadata<const char*>(), sizeof(flags));
  return flags;
}

class PacketTest : public testing::Test {
 protected:
  static constexpr size_t kPackets = 15;

  ~PacketTest() override {
    EXPECT_EQ(pool_.available(), kPackets) << "packets leaked";
  }

  Packet* Make(const std::string& bytes) {
    Packet* pkt = pool_.Alloc(static_cast<uint16_t>(bytes.size()));
    memcpy(pkt->head_data<char*>(), bytes.data(), bytes.size());
    return pkt;
  }

  // One segment for each string.
  Packet* MakeChain(const std::vector<std::string>& segments) {
    Packet* first = Make(segments[0]);
    for (size_t i = 1; i < segments.size(); i++) {
      EXPECT_EQ(rte_pktmbuf_chain(first->mbuf(), Make(segments[i])->mbuf()), 0);
    }
    return first;
  }

  PacketPool pool_{kPackets, 0};
};

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
  pkt->set_total_len(3);
  EXPECT_EQ(pkt->head_len(), 3);
  EXPECT_EQ(pkt->total_len(), 3);
  EXPECT_EQ(Bytes(pkt), "abc");
  Packet::Free(pkt);
}

TEST_F(PacketTest, KnowsItsSegments) {
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

TEST_F(PacketTest, CopyHasTheBytesOfEachLength) {
  for (size_t size = 0; size <= Packet::kDataRoom;
       size += size < 300 ? 1 : 97) {
    const std::string bytes = RandomBytes(size);
    Packet* src = Make(bytes);
    Packet* copy = Packet::copy(src);
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy, src);
    EXPECT_EQ(Bytes(copy), bytes) << size;
    EXPECT_EQ(copy->total_len(), static_cast<int>(size));
    EXPECT_EQ(copy->headroom(), 128);
    EXPECT_EQ(Bytes(src), bytes);
    Packet::Free(copy);
    Packet::Free(src);
  }
}

// Whoever reads headers at fixed positions reads the same in the copy.
TEST_F(PacketTest, CopyOfAShortPacketTakesAlongWhatLiesBehind) {
  const std::string bytes = RandomBytes(Packet::kMinCopy);
  Packet* src = Make(bytes);
  src->set_data_len(34);
  src->set_total_len(34);
  Packet* copy = Packet::copy(src);
  EXPECT_EQ(copy->head_len(), 34);
  EXPECT_EQ(memcmp(copy->head_data<char*>(), bytes.data(), bytes.size()), 0);
  Packet::Free(copy);
  Packet::Free(src);
}

TEST_F(PacketTest, CopyOfAShortPacketStaysWithinTheSourcesBuffer) {
  const std::string bytes = RandomBytes(Packet::kDataRoom);
  Packet* src = Make(bytes);
  src->adj(Packet::kDataRoom - 20);  // 20 bytes of data, and the buffer ends
  Packet* copy = Packet::copy(src);
  EXPECT_EQ(Bytes(copy), bytes.substr(Packet::kDataRoom - 20));
  Packet::Free(copy);
  Packet::Free(src);
}

TEST_F(PacketTest, CopyOfAFullBufferStaysInOnePiece) {
  const std::string bytes = RandomBytes(Packet::kDataRoom);
  Packet* src = Make(bytes);
  memcpy(src->prepend(100), bytes.data(), 100);
  Packet* copy = Packet::copy(src);
  ASSERT_NE(copy, nullptr);
  EXPECT_TRUE(copy->is_linear());
  EXPECT_EQ(Bytes(copy), bytes.substr(0, 100) + bytes);
  EXPECT_EQ(copy->headroom(), 28);
  Packet::Free(copy);
  Packet::Free(src);
}

TEST_F(PacketTest, CopyDoesNotDependOnTheSourcesPlace) {
  Packet* src = Make("0123456789");
  src->adj(3);
  Packet* copy = Packet::copy(src);
  EXPECT_EQ(Bytes(copy), "3456789");
  EXPECT_EQ(copy->headroom(), 128);
  EXPECT_EQ(copy->tailroom(), 2041);
  Packet::Free(copy);
  Packet::Free(src);
}

TEST_F(PacketTest, CopyLeavesMetadataBehind) {
  // The buffer that the copy gets has been full of valid-looking metadata.
  Packet* pkts[kPackets];
  ASSERT_TRUE(pool_.AllocBulk(pkts, kPackets));
  for (Packet* pkt : pkts) {
    memset(pkt->metadata<char*>(), 0xff, Packet::kMetadataSize);
    pkt->mbuf()->ol_flags = RTE_MBUF_F_RX_VLAN;
  }
  Packet::Free(pkts, kPackets);

  Packet* src = Make("abc");
  memset(src->metadata<char*>(), 0x11, Packet::kMetadataSize);
  Packet* copy = Packet::copy(src);
  EXPECT_EQ(Flags(copy), 0u);
  EXPECT_EQ(copy->mbuf()->ol_flags, 0u);
  EXPECT_EQ(copy->mbuf()->refcnt, 1);
  EXPECT_EQ(copy->mbuf()->next, nullptr);
  Packet::Free(copy);

  Packet* chain = MakeChain({"abc", "def"});
  Packet* chain_copy = Packet::copy(chain);
  EXPECT_EQ(Flags(chain_copy), 0u);
  Packet::Free(chain_copy);
  Packet::Free(chain);
  Packet::Free(src);
}

TEST_F(PacketTest, CopyKeepsTagAndPort) {
  for (const auto& segments :
       {std::vector<std::string>{"ab"}, std::vector<std::string>{"ab", "cd"}}) {
    Packet* src = MakeChain(segments);
    src->set_tag(0x12345678);
    src->set_port(7);
    Packet* copy = Packet::copy(src);
    EXPECT_EQ(copy->tag(), 0x12345678u);
    EXPECT_EQ(copy->port(), 7);
    Packet::Free(copy);
    Packet::Free(src);
  }
}

TEST_F(PacketTest, CopyComesFromTheSourcesPool) {
  PacketPool other(7, 0);
  Packet* src = other.Alloc(4);
  Packet* copy = Packet::copy(src);
  EXPECT_EQ(other.available(), 5u);
  EXPECT_EQ(copy->mbuf()->pool, other.mempool());
  Packet::Free(copy);
  Packet::Free(src);
  EXPECT_EQ(other.available(), 7u);
}

TEST_F(PacketTest, CopyOfAChainThatFitsIsLinear) {
  const std::string bytes = RandomBytes(1500);
  Packet* src = MakeChain(
      {bytes.substr(0, 1), bytes.substr(1, 999), "", bytes.substr(1000)});
  ASSERT_EQ(src->nb_segs(), 4);
  Packet* copy = Packet::copy(src);
  ASSERT_NE(copy, nullptr);
  EXPECT_TRUE(copy->is_linear());
  EXPECT_EQ(copy->total_len(), 1500);
  EXPECT_EQ(Bytes(copy), bytes);
  Packet::Free(copy);
  Packet::Free(src);
}

TEST_F(PacketTest, CopyOfALongChainIsAChain) {
  const std::string bytes = RandomBytes(6 * 1000);
  std::vector<std::string> segments;
  for (size_t i = 0; i < 6; i++) {
    segments.push_back(bytes.substr(i * 1000, 1000));
  }
  Packet* src = MakeChain(segments);
  Packet* copy = Packet::copy(src);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->nb_segs(), 3);
  EXPECT_EQ(copy->total_len(), 6000);
  EXPECT_EQ(Bytes(copy), bytes);
  EXPECT_EQ(rte_mbuf_check(copy->mbuf(), 1, nullptr), 0);
  Packet::Free(copy);
  Packet::Free(src);
}

TEST_F(PacketTest, CopyFromADryPoolIsNullAndHoldsNothing) {
  Packet* src = Make("abc");
  Packet* rest[kPackets - 1];
  ASSERT_TRUE(pool_.AllocBulk(rest, kPackets - 1));
  const uint64_t failed_before = Packet::failed_copies();
  EXPECT_EQ(Packet::copy(src), nullptr);
  EXPECT_EQ(Packet::failed_copies(), failed_before + 1);
  Packet::Free(rest, kPackets - 1);
  EXPECT_EQ(pool_.available(), kPackets - 1);
  Packet::Free(src);
}

TEST_F(PacketTest, CopyOfAChainFromAPoolThatRunsDryHoldsNothing) {
  // The source takes 12 of 15 packets; its copy would need 12 more.
  const std::string segment = RandomBytes(Packet::kDataRoom);
  Packet* src = MakeChain(std::vector<std::string>(12, segment));
  const uint64_t failed_before = Packet::failed_copies();
  EXPECT_EQ(Packet::copy(src), nullptr);
  EXPECT_EQ(Packet::failed_copies(), failed_before + 1);
  EXPECT_EQ(pool_.available(), 3u);
  Packet::Free(src);
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
}

}  // namespace
