// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstddef>

namespace bess {

class Packet;

class PacketBatch {
 public:
  static constexpr size_t kMaxBurst = 32;

  int cnt() const { return cnt_; }
  void set_cnt(int cnt) { cnt_ = cnt; }
  void incr_cnt(int n = 1) { cnt_ += n; }
  Packet* const* pkts() const { return pkts_; }
  Packet** pkts() { return pkts_; }
  void clear() { cnt_ = 0; }
  void add(Packet* packet) { pkts_[cnt_++] = packet; }
  void add(PacketBatch* batch) {
    for (int i = 0; i < batch->cnt(); i++) add(batch->pkts()[i]);
  }
  bool empty() { return cnt_ == 0; }
  bool full() { return cnt_ == kMaxBurst; }

 private:
  int cnt_;
  Packet* pkts_[kMaxBurst];
};

}  // namespace bess
