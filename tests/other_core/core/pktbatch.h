// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstddef>

namespace bess {

class Packet;

class PacketBatch {
 public:
  static constexpr size_t kMaxBurst = 32;

  int cnt() const;
  void set_cnt(int cnt);
  void incr_cnt(int n = 1);
  Packet* const* pkts() const;
  Packet** pkts();
  void clear();
  void add(Packet* packet);
  void add(PacketBatch* batch);
  bool empty();
  bool full();
};

}  // namespace bess
