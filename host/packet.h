// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <rte_lcore.h>
#include <rte_mbuf.h>
#include <rte_mempool.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "internal/wide_copy.h"
#include "pktbatch.h"

namespace bess {

// One packet, or one segment of a chained packet: a DPDK mbuf seen with the
// host's layout of its private area and buffer. It is never constructed; a
// pointer to it is a pointer to the mbuf.
//
//      0  rte_mbuf          DPDK's own 128 bytes
//    128  immutable          64 bytes  } the mbuf's private area: set by the
//    192  metadata          128 bytes  } receiver, shared between modules,
//    320  scratchpad         64 bytes  } and free for use inside one module
//    384  headroom          128 bytes  } the mbuf's buffer
//    512  data room        2048 bytes  }
//
// The first 64-bit word of the metadata says which of its fields are valid. A
// fresh packet (from a pool, a receiver or copy()) has that word cleared and
// nothing else, so what the buffer's last packet left behind is never valid.
//
// A packet belongs to one thread at a time; nothing here is synchronised.
class alignas(64) Packet {
 public:
  static constexpr size_t kImmutableSize = 64;
  static constexpr size_t kMetadataSize = 128;
  static constexpr size_t kScratchpadSize = 64;
  static constexpr size_t kPrivateSize =
      kImmutableSize + kMetadataSize + kScratchpadSize;
  static constexpr size_t kMetadataOffset = sizeof(rte_mbuf) + kImmutableSize;
  static constexpr size_t kHeadroom = RTE_PKTMBUF_HEADROOM;
  static constexpr size_t kDataRoom = 2048;
  static constexpr size_t kCopyLine = internal::kCopyLine;

  Packet() = delete;
  Packet(const Packet&) = delete;
  Packet& operator=(const Packet&) = delete;

  static Packet* from_mbuf(rte_mbuf* mbuf) {
    return reinterpret_cast<Packet*>(mbuf);
  }
  rte_mbuf* mbuf() { return &mbuf_; }
  const rte_mbuf* mbuf() const { return &mbuf_; }

  // The bytes of this segment from `offset` on, as the pointer type T.
  template <typename T = void*>
  T head_data(uint16_t offset = 0) const {
    return reinterpret_cast<T>(data() + offset);
  }

  // The start of the metadata, the scratchpad or the read-only area, as T.
  template <typename T = char*>
  T metadata() const {
    return reinterpret_cast<T>(const_cast<char*>(metadata_));
  }
  template <typename T = char*>
  T scratchpad() const {
    return reinterpret_cast<T>(const_cast<char*>(scratchpad_));
  }
  template <typename T = const char*>
  T immutable() const {
    return reinterpret_cast<T>(immutable_);
  }

  // Bytes in this segment.
  int head_len() const { return mbuf_.data_len; }
  uint16_t data_len() const { return mbuf_.data_len; }
  void set_data_len(uint16_t len) { mbuf_.data_len = len; }

  // Bytes in all segments; kept in the first one.
  int total_len() const { return static_cast<int>(mbuf_.pkt_len); }
  void set_total_len(uint32_t len) { mbuf_.pkt_len = len; }

  // Free bytes before and behind this segment's data.
  uint16_t headroom() const { return mbuf_.data_off; }
  uint16_t tailroom() const {
    return static_cast<uint16_t>(mbuf_.buf_len - mbuf_.data_off -
                                 mbuf_.data_len);
  }

  int nb_segs() const { return mbuf_.nb_segs; }
  bool is_linear() const { return mbuf_.nb_segs == 1; }
  Packet* next() const { return from_mbuf(mbuf_.next); }

  // A 32-bit mark that a receiver may put on a packet, 0 on a fresh one. It
  // does travel with copies, so that an output can be traced to its input.
  uint32_t tag() const { return mbuf_.hash.usr; }
  void set_tag(uint32_t tag) { mbuf_.hash.usr = tag; }

  // The port the packet was received on; travels with copies.
  uint16_t port() const { return mbuf_.port; }
  void set_port(uint16_t port) { mbuf_.port = port; }

  // Moves the start of the packet back by `len` bytes, whose content is
  // undefined. Answers the new start, null (and nothing changed) without room.
  void* prepend(uint16_t len) {
    if (headroom() < len) [[unlikely]] {
      return nullptr;
    }
    mbuf_.data_off -= len;
    mbuf_.data_len += len;
    mbuf_.pkt_len += len;
    return data();
  }

  // Removes `len` bytes from the start. Answers the new start, null (and
  // nothing changed) when the first segment holds fewer.
  void* adj(uint16_t len) {
    if (mbuf_.data_len < len) [[unlikely]] {
      return nullptr;
    }
    mbuf_.data_off += len;
    mbuf_.data_len -= len;
    mbuf_.pkt_len -= len;
    return data();
  }

  // Adds `len` bytes of undefined content at the end of the last segment.
  // Answers where they start, null (and nothing changed) without room.
  void* append(uint16_t len) {
    Packet* last = last_segment();
    if (last->tailroom() < len) [[unlikely]] {
      return nullptr;
    }
    char* tail = last->data() + last->mbuf_.data_len;
    last->mbuf_.data_len += len;
    mbuf_.pkt_len += len;
    return tail;
  }

  // Declares everything in the metadata invalid. Receivers call it on each
  // packet that did not come out of PacketPool.
  void clear_metadata_flags() { memset(metadata_, 0, sizeof(uint64_t)); }

  // A new packet with the same bytes, from the pool of `src`, with full
  // headroom, the same tag and port, no offload flags and cleared metadata
  // flags. What lies behind the bytes comes along up to the end of their last
  // line, if the buffer reaches beyond it: whole lines are what is fast to
  // copy. Chained packets are copied too, into as few segments as hold them.
  // Null when the pool is dry; nothing is then held.
  static Packet* copy(const Packet* src);

  // How often copy() found the pool dry, since the start of the process.
  static uint64_t failed_copies();

  // Frees packets and what is chained to them. None may be null.
  static void Free(Packet* pkt) { rte_pktmbuf_free(&pkt->mbuf_); }
  static void Free(Packet** pkts, size_t cnt) {
    if (cnt == 0 || FreePlain(pkts, cnt)) [[likely]] {
      return;
    }
    rte_pktmbuf_free_bulk(reinterpret_cast<rte_mbuf**>(pkts),
                          static_cast<unsigned>(cnt));
  }
  // Frees the packets. The batch keeps its stale list: clear() it before reuse.
  static void Free(PacketBatch* batch) { Free(batch->pkts(), batch->cnt()); }

 private:
  char* data() const {
    return static_cast<char*>(mbuf_.buf_addr) + mbuf_.data_off;
  }

  Packet* last_segment() {
    Packet* seg = this;
    while (seg->mbuf_.next != nullptr) [[unlikely]] {
        seg = seg->next();
      }
    return seg;
  }

  // A free buffer of `pool`, null without. It comes out of the thread's own
  // cache if there is one, without a call.
  static rte_mbuf* TakeFree(rte_mempool* pool) {
    const unsigned lcore = rte_lcore_id();
    if (pool->cache_size == 0 || lcore >= RTE_MAX_LCORE) [[unlikely]] {
      return rte_mbuf_raw_alloc(pool);
    }
    rte_mempool_cache* cache = &pool->local_cache[lcore];
    if (cache->len == 0) [[unlikely]] {
      return rte_mbuf_raw_alloc(pool);
    }
    return static_cast<rte_mbuf*>(cache->objs[--cache->len]);
  }

  // Makes a free buffer a packet of `len` bytes behind full headroom. Whole
  // words are stored, as receiving drivers do it; what is not named is 0.
  static void InitMbuf(rte_mbuf* mbuf, uint16_t len, uint16_t port,
                       uint32_t tag) {
    static_assert(std::endian::native == std::endian::little);
    static_assert(offsetof(rte_mbuf, data_off) == 16);
    static_assert(offsetof(rte_mbuf, refcnt) == 18);
    static_assert(offsetof(rte_mbuf, nb_segs) == 20);
    static_assert(offsetof(rte_mbuf, port) == 22);
    static_assert(offsetof(rte_mbuf, ol_flags) == 24);
    static_assert(offsetof(rte_mbuf, packet_type) == 32);
    static_assert(offsetof(rte_mbuf, pkt_len) == 36);
    static_assert(offsetof(rte_mbuf, data_len) == 40);
    static_assert(offsetof(rte_mbuf, vlan_tci) == 42);
    static_assert(offsetof(rte_mbuf, hash.usr) == 44);
    auto* words = reinterpret_cast<std::byte*>(mbuf) + 16;
    StoreWord(words, kHeadroom | kWhole | uint64_t{port} << 48);
    StoreWord(words + 8, 0);  // ol_flags
    StoreWord(words + 16, uint64_t{len} << 32);
    StoreWord(words + 24, len | uint64_t{tag} << 32);
  }

  static void StoreWord(std::byte* to, uint64_t word) {
    memcpy(to, &word, sizeof(word));
  }

  // Gives back `cnt` packets at once if none of them needs more than that: all
  // unchained, of one owner, with their own buffers and from one pool. Answers
  // whether it has.
  static bool FreePlain(Packet* const* pkts, size_t cnt) {
    rte_mempool* pool = pkts[0]->mbuf_.pool;
    // Gathered from all of them, and looked at once below.
    uint64_t shape = 0;
    uint64_t flags = 0;
    uintptr_t pools = 0;
#pragma GCC unroll 4
    for (size_t i = 0; i < cnt; i++) {
      const rte_mbuf& mbuf = pkts[i]->mbuf_;
      uint64_t word;
      memcpy(&word, &mbuf.rearm_data, sizeof(word));
      shape |= word ^ kWhole;
      flags |= mbuf.ol_flags;
      pools |= reinterpret_cast<uintptr_t>(mbuf.pool) ^
               reinterpret_cast<uintptr_t>(pool);
    }
    if ((shape & kWholeMask) != 0 || pools != 0 ||
        (flags & (RTE_MBUF_F_INDIRECT | RTE_MBUF_F_EXTERNAL)) != 0)
        [[unlikely]] {
      return false;
    }
    rte_mempool_put_bulk(pool, reinterpret_cast<void* const*>(pkts),
                         static_cast<unsigned>(cnt));
    return true;
  }

  // refcnt and nb_segs of a packet with one owner and one segment, where they
  // lie in the word that starts at data_off.
  static constexpr uint64_t kWhole = uint64_t{1} << 16 | uint64_t{1} << 32;
  static constexpr uint64_t kWholeMask = 0x0000'ffff'ffff'0000;

  static Packet* CopyAny(const Packet* src);  // of any length and shape
  static Packet* CopyChained(const Packet* src);
  static Packet* CopyFailed();  // counts; answers null

  static constexpr bool LayoutHolds() {
    static_assert(alignof(Packet) == 64);
    static_assert(sizeof(rte_mbuf) == 128 && offsetof(Packet, mbuf_) == 0);
    static_assert(offsetof(Packet, immutable_) == 128);
    static_assert(offsetof(Packet, metadata_) == 192);
    static_assert(offsetof(Packet, scratchpad_) == 320);
    static_assert(offsetof(Packet, headroom_) == 384);
    static_assert(offsetof(Packet, data_) == 512);
    static_assert(sizeof(Packet) == 2560);
    return true;
  }

  // DPDK marks the lines of an mbuf with arrays of length 0.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"
  rte_mbuf mbuf_;
#pragma GCC diagnostic pop
  char immutable_[kImmutableSize];
  char metadata_[kMetadataSize];
  char scratchpad_[kScratchpadSize];
  [[maybe_unused]] char headroom_[kHeadroom];
  [[maybe_unused]] char data_[kDataRoom];
};

inline Packet* Packet::copy(const Packet* src) {
  static_assert(LayoutHolds() && kPrivateSize == 256 && kMetadataOffset == 192);
  const uint16_t len = src->mbuf_.data_len;
  static_assert(kDataRoom % kCopyLine == 0);
  const bool simple =
      src->is_linear() && len <= kDataRoom &&
      src->mbuf_.data_off + len + kCopyLine <= src->mbuf_.buf_len;
  if (!simple) [[unlikely]] {
    return CopyAny(src);
  }
  rte_mbuf* mbuf = TakeFree(src->mbuf_.pool);
  if (mbuf == nullptr) [[unlikely]] {
    return CopyFailed();
  }
  InitMbuf(mbuf, len, src->mbuf_.port, src->mbuf_.hash.usr);
  Packet* dst = from_mbuf(mbuf);
  dst->clear_metadata_flags();
  internal::CopyLines(dst->data_, src->data(), len);
  return dst;
}

}  // namespace bess
