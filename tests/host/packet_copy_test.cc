// SPDX-License-Identifier: BSD-3-Clause
// Copies of packets: what they have of the packet, and what they have not.
#include <set>

#include "packet.h"
#include "packet_fixture.h"

namespace {

using bess::Packet;
using bess::PacketPool;

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

// And leaves the line behind that alone.
TEST_F(PacketTest, CopyTakesAlongTheRestOfTheLastLine) {
  for (const auto& [length, lines] : {std::pair{0, 64},
                                      {34, 64},
                                      {64, 64},
                                      {65, 128},
                                      {129, 192},
                                      {1984, 1984}}) {
    SpoilFreeBuffers();
    const std::string bytes = RandomBytes(2048);
    Packet* src = Make(bytes);
    src->set_data_len(static_cast<uint16_t>(length));
    src->set_total_len(static_cast<uint32_t>(length));
    Packet* copy = Packet::copy(src);
    EXPECT_EQ(copy->head_len(), length);
    EXPECT_EQ(std::string(copy->head_data<char*>(), 2048),
              bytes.substr(0, static_cast<size_t>(lines)) +
                  std::string(static_cast<size_t>(2048 - lines), '\xee'))
        << length;
    Packet::Free(copy);
    Packet::Free(src);
  }
}

TEST_F(PacketTest, CopyOfShiftedBytesTakesAlongWhatIsInBothBuffers) {
  SpoilFreeBuffers();
  const std::string bytes = RandomBytes(Packet::kDataRoom);
  for (const uint16_t left : {64, 63}) {
    Packet* src = Make(bytes);
    src->set_data_len(static_cast<uint16_t>(Packet::kDataRoom - left));
    src->set_total_len(src->data_len());
    src->adj(1990 - left);  // 58 bytes of data
    Packet* copy = Packet::copy(src);
    EXPECT_EQ(Bytes(copy), bytes.substr(1990u - left, 58));
    // A line behind the data has room in the source's buffer, or not quite.
    EXPECT_EQ(
        *copy->head_data<const uint8_t*>(58),
        left == 64 ? static_cast<uint8_t>(bytes[1990u - left + 58]) : 0xee)
        << left;
    Packet::Free(copy);
    Packet::Free(src);
    SpoilFreeBuffers();
  }
}

TEST_F(PacketTest, CopyOfAShortPacketStaysWithinTheSourcesBuffer) {
  SpoilFreeBuffers();
  const std::string bytes = RandomBytes(Packet::kDataRoom);
  Packet* src = Make(bytes);
  src->adj(Packet::kDataRoom - 20);  // 20 bytes of data, and the buffer ends
  Packet* copy = Packet::copy(src);
  EXPECT_EQ(Bytes(copy), bytes.substr(Packet::kDataRoom - 20));
  EXPECT_EQ(*copy->head_data<const uint8_t*>(20), 0xee) << "not written";
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

  memcpy(src->prepend(28), bytes.data(), 28);
  copy = Packet::copy(src);
  ASSERT_NE(copy, nullptr);
  EXPECT_TRUE(copy->is_linear());
  EXPECT_EQ(Bytes(copy), bytes.substr(0, 28) + bytes.substr(0, 100) + bytes);
  EXPECT_EQ(copy->headroom(), 0);
  EXPECT_EQ(copy->tailroom(), 0);
  Packet::Free(copy);
  Packet::Free(src);
}

TEST_F(PacketTest, CopyOfAChainThatIsShorterThanItSaysEndsWithIt) {
  Packet* src = MakeChain({"abcd", "efg"});
  src->set_total_len(5000);
  Packet* copy = Packet::copy(src);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->total_len(), 7);
  EXPECT_EQ(Bytes(copy), "abcdefg");
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
  SpoilFreeBuffers();

  Packet* src = Make("abc");
  memset(src->metadata<char*>(), 0x11, Packet::kMetadataSize);
  Packet* copy = Packet::copy(src);
  EXPECT_EQ(Flags(copy), 0u);
  EXPECT_EQ(copy->mbuf()->ol_flags, 0u);
  EXPECT_EQ(copy->mbuf()->refcnt, 1);
  EXPECT_EQ(copy->mbuf()->next, nullptr);
  // Clearing the word that says what is valid is all it takes.
  const std::string rest(Packet::kMetadataSize - 8, '\xff');
  EXPECT_EQ(memcmp(copy->metadata<char*>() + 8, rest.data(), rest.size()), 0);
  Packet::Free(copy);

  for (const size_t size : {size_t{Packet::kCopyLine}, Packet::kCopyLine + 1,
                            size_t{Packet::kDataRoom}}) {
    Packet* longer = Make(RandomBytes(size));
    copy = Packet::copy(longer);
    EXPECT_EQ(Flags(copy), 0u) << size;
    Packet::Free(copy);
    Packet::Free(longer);
  }

  Packet* chain = MakeChain({"abc", "def"});
  Packet* chain_copy = Packet::copy(chain);
  EXPECT_EQ(Flags(chain_copy), 0u);
  Packet::Free(chain_copy);
  Packet::Free(chain);
  Packet::Free(src);
}

// Neither from the packet, nor from what the copy's buffer was used for before.
TEST_F(PacketTest, CopyHasNothingOfTheReceiversNotes) {
  SpoilFreeBuffers();
  for (const auto& segments :
       {std::vector<std::string>{"ab"}, std::vector<std::string>{"ab", "cd"}}) {
    Packet* src = MakeChain(segments);
    SpoilNotes(src);
    Packet* copy = Packet::copy(src);
    EXPECT_EQ(copy->mbuf()->ol_flags, 0u);
    EXPECT_EQ(copy->mbuf()->packet_type, 0u);
    EXPECT_EQ(copy->mbuf()->vlan_tci, 0u);
    EXPECT_EQ(copy->headroom(), 128);
    EXPECT_EQ(copy->nb_segs(), 1);
    EXPECT_EQ(Bytes(copy), segments.size() == 1 ? "ab" : "abcd");
    Packet::Free(copy);
    Packet::Free(src);
  }
}

TEST_F(PacketTest, CopyKeepsTagAndPort) {
  for (const auto& segments :
       {std::vector<std::string>{"ab"}, std::vector<std::string>{"ab", "cd"}}) {
    Packet* src = MakeChain(segments);
    src->set_tag(0x12345678);
    src->set_port(0x9abc);
    Packet* copy = Packet::copy(src);
    EXPECT_EQ(copy->tag(), 0x12345678u);
    EXPECT_EQ(copy->port(), 0x9abc);
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

// Out of the thread's cache, and out of the pool when that is empty.
TEST_F(PacketTest, CopiesCanBeHadUntilAPoolWithACacheIsDry) {
  constexpr size_t kCapacity = 127;
  PacketPool pool(kCapacity, 32);
  Packet* src = pool.Alloc(4);
  std::set<Packet*> copies = {src};
  while (Packet* copy = Packet::copy(src)) {
    EXPECT_TRUE(copies.insert(copy).second) << "given out twice";
  }
  EXPECT_EQ(copies.size(), kCapacity);
  for (Packet* copy : copies) {
    Packet::Free(copy);
  }
  EXPECT_EQ(pool.available(), kCapacity);
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
  // The second fills its buffer to the end, which is copied in another way.
  for (const std::string& bytes : {std::string("abc"), RandomBytes(2048)}) {
    Packet* src = Make(bytes);
    Packet* rest[kPackets - 1];
    ASSERT_TRUE(pool_.AllocBulk(rest, kPackets - 1));
    const uint64_t failed_before = Packet::failed_copies();
    EXPECT_EQ(Packet::copy(src), nullptr);
    EXPECT_EQ(Packet::failed_copies(), failed_before + 1);
    Packet::Free(rest, kPackets - 1);
    EXPECT_EQ(pool_.available(), kPackets - 1);
    Packet::Free(src);
  }
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

}  // namespace
