// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstddef>
#include <cstring>

namespace bess {

class Packet;

// Up to 32 packets that travel together. Plain data: a batch that was not taken
// from a task must be clear()ed before its first use. A batch does not own its
// packets; whoever holds the batch does.
class PacketBatch {
 public:
  static constexpr size_t kMaxBurst = 32;

  int cnt() const { return cnt_; }
  void set_cnt(int cnt) { cnt_ = cnt; }
  void incr_cnt(int n = 1) { cnt_ += n; }

  Packet* const* pkts() const { return pkts_; }
  Packet** pkts() { return pkts_; }

  void clear() { cnt_ = 0; }
  bool empty() const { return cnt_ == 0; }
  bool full() const { return cnt_ == static_cast<int>(kMaxBurst); }

  // Appends one packet. The batch must not be full; that is not checked.
  void add(Packet* pkt) { pkts_[cnt_++] = pkt; }

  // Appends all packets of `other`, which keeps its own list. There must be
  // room for them; that is not checked.
  void add(const PacketBatch* other) {
    memcpy(pkts_ + cnt_, other->pkts_,
           sizeof(Packet*) * static_cast<size_t>(other->cnt_));
    cnt_ += other->cnt_;
  }

 private:
  int cnt_;
  Packet* pkts_[kMaxBurst];
};

}  // namespace bess
