// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <rte_mbuf.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace bess {

class PacketBatch;

class alignas(64) Packet {
 public:
  template <typename T = void*>
  T head_data(uint16_t offset = 0) const {
    return reinterpret_cast<T>(static_cast<char*>(mbuf_.buf_addr) +
                               mbuf_.data_off + offset);
  }
  template <typename T = char*>
  T metadata() const {
    return reinterpret_cast<T>(const_cast<char*>(metadata_));
  }

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

  // A copy in a used buffer: its metadata is what that buffer had.
  static Packet* copy(const Packet* src);
  static void Free(Packet* packet);
  static void Free(Packet** packets, size_t cnt);
  static void Free(PacketBatch* batch);

 private:
  friend Packet* make(const std::vector<uint8_t>& bytes);

  rte_mbuf mbuf_;
  char immutable_[64];
  char metadata_[128];
};

Packet* make(const std::vector<uint8_t>& bytes);

// What a copy gets: free bytes in front of it, and its metadata area's bytes.
extern uint16_t copy_headroom;
extern uint8_t copy_metadata[128];

}  // namespace bess
