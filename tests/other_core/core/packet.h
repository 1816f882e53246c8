// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <rte_mbuf.h>

#include <cstddef>
#include <cstdint>

namespace bess {

class PacketBatch;

class alignas(64) Packet {
 public:
  template <typename T = void*>
  T head_data(uint16_t offset = 0) const;
  template <typename T = char*>
  T metadata() const;

  int head_len() const;
  int total_len() const;
  uint16_t headroom() const;
  uint16_t tailroom() const;
  uint16_t data_len() const;
  void set_data_len(uint16_t len);
  void set_total_len(uint32_t len);
  void* prepend(uint16_t len);
  void* adj(uint16_t len);
  void* append(uint16_t len);
  int nb_segs() const;
  Packet* next() const;
  bool is_linear() const;

  static Packet* copy(const Packet* src);
  static void Free(Packet* packet);
  static void Free(Packet** packets, size_t cnt);
  static void Free(PacketBatch* batch);

 private:
  rte_mbuf mbuf_;
};

}  // namespace bess
