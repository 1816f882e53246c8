// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <rte_mempool.h>

#include <cstddef>
#include <cstdint>

#include "packet.h"

namespace bess {

// A fixed number of packet buffers, in memory of the EAL's (with or without
// hugepages). Threads with an lcore identity have a cache of their own.
//
// Any thread may allocate. Packets go back with Packet::Free; all of them must
// be back when the pool is destroyed.
class PacketPool {
 public:
  static constexpr size_t kDefaultCapacity = 16383;
  static constexpr unsigned kDefaultCache = 256;

  // `capacity` packets; one less than a power of two wastes no memory.
  // `cache` is the number kept ready by lcore: at most 512, and no more than
  // two thirds of the capacity (it is cut to fit). Throws std::runtime_error
  // with a text for a person when there is no memory for it.
  explicit PacketPool(size_t capacity = kDefaultCapacity,
                      unsigned cache = kDefaultCache);
  ~PacketPool();
  PacketPool(const PacketPool&) = delete;
  PacketPool& operator=(const PacketPool&) = delete;

  // The pool of those who bring none of their own, made at its first use.
  static PacketPool* Default();

  // Makes the default pool with another size. Before its first use only:
  // answers false when it exists already.
  static bool MakeDefault(size_t capacity, unsigned cache = kDefaultCache);

  // A linear packet of `len` bytes (at most Packet::kDataRoom) of undefined
  // content. Null when the pool is dry.
  Packet* Alloc(uint16_t len = 0);

  // `count` of them, or none and false.
  bool AllocBulk(Packet** pkts, size_t count, uint16_t len = 0);

  size_t capacity() const { return mempool_->size; }

  // Packets that are free now. Exact only while nobody allocates or frees.
  size_t available() const { return rte_mempool_avail_count(mempool_); }

  rte_mempool* mempool() { return mempool_; }

 private:
  rte_mempool* mempool_;
};

}  // namespace bess
