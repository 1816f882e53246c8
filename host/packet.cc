// SPDX-License-Identifier: BSD-3-Clause
#include "packet.h"

#include <rte_memcpy.h>

#include <algorithm>
#include <atomic>
#include <cstring>

namespace bess {
namespace {

// Reads the bytes of a chained packet from front to back.
class SegmentReader {
 public:
  explicit SegmentReader(const rte_mbuf* first) : segment_(first) {}

  // Copies the next `len` bytes, as far as there are any. Answers how many.
  uint32_t Read(char* to, uint32_t len) {
    uint32_t done = 0;
    while (done < len && segment_ != nullptr) {
      const uint32_t n = std::min(len - done, segment_->data_len - offset_);
      memcpy(to + done, rte_pktmbuf_mtod_offset(segment_, const char*, offset_),
             n);
      done += n;
      offset_ += n;
      if (offset_ == segment_->data_len) {
        segment_ = segment_->next;
        offset_ = 0;
      }
    }
    return done;
  }

 private:
  const rte_mbuf* segment_;
  uint32_t offset_ = 0;
};

std::atomic<uint64_t> failed_copies_of_all_threads = 0;

}  // namespace

Packet* Packet::CopyFailed() {
  failed_copies_of_all_threads.fetch_add(1, std::memory_order_relaxed);
  return nullptr;
}

uint64_t Packet::failed_copies() {
  return failed_copies_of_all_threads.load(std::memory_order_relaxed);
}

Packet* Packet::CopyAny(const Packet* src) {
  const uint16_t len = src->mbuf_.data_len;
  if (!src->is_linear() || len > kDataRoom) {
    return CopyChained(src);
  }
  rte_mbuf* mbuf = TakeFree(src->mbuf_.pool);
  if (mbuf == nullptr) {
    return CopyFailed();
  }
  InitMbuf(mbuf, len, src->mbuf_.port, src->mbuf_.hash.usr);
  Packet* dst = from_mbuf(mbuf);
  dst->clear_metadata_flags();
  rte_memcpy(dst->data_, src->data(), len);
  return dst;
}

Packet* Packet::CopyChained(const Packet* src) {
  rte_mempool* pool = src->mbuf_.pool;
  SegmentReader reader(&src->mbuf_);
  uint32_t left = src->mbuf_.pkt_len;
  rte_mbuf* first = nullptr;
  rte_mbuf** link = &first;
  do {
    rte_mbuf* segment = rte_pktmbuf_alloc(pool);
    if (segment == nullptr) {
      rte_pktmbuf_free(first);
      return CopyFailed();
    }
    *link = segment;
    link = &segment->next;
    from_mbuf(segment)->clear_metadata_flags();
    // A packet that grew into its headroom stays in one piece.
    if (left > kDataRoom && left <= segment->buf_len) {
      segment->data_off = static_cast<uint16_t>(segment->buf_len - left);
    }
    const uint32_t room = segment->buf_len - segment->data_off;
    segment->data_len = static_cast<uint16_t>(
        reader.Read(rte_pktmbuf_mtod(segment, char*), std::min(left, room)));
    left -= segment->data_len;
    if (segment != first) {
      first->nb_segs++;
      if (segment->data_len == 0) {  // total_len() promises more than there is
        break;
      }
    }
    first->pkt_len += segment->data_len;
  } while (left > 0);
  first->port = src->mbuf_.port;
  first->hash.usr = src->mbuf_.hash.usr;
  return from_mbuf(first);
}

}  // namespace bess
