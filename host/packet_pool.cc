// SPDX-License-Identifier: BSD-3-Clause
#include "packet_pool.h"

#include <rte_errno.h>
#include <rte_lcore.h>
#include <rte_memory.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>

namespace bess {
namespace {

std::mutex default_mutex;
PacketPool* default_pool;  // never destroyed: packets outlive everything else

std::string UniqueName() {
  static std::atomic<unsigned> number = 0;
  return "packets" + std::to_string(number++);
}

// What the area held before it became a pool must not be read as valid.
void ClearPrivateArea(rte_mempool*, void*, void* object, unsigned) {
  memset(static_cast<char*>(object) + sizeof(rte_mbuf), 0,
         Packet::kPrivateSize);
}

void Prepare(Packet* pkt, uint16_t len) {
  pkt->set_data_len(len);
  pkt->set_total_len(len);
  pkt->set_tag(0);
  pkt->clear_metadata_flags();
}

}  // namespace

PacketPool::PacketPool(size_t capacity, unsigned cache) {
  // DPDK wants 1.5 times the cache to fit into the pool.
  const unsigned most =
      std::min<size_t>(RTE_MEMPOOL_CACHE_MAX_SIZE, capacity * 2 / 3);
  const std::string name = UniqueName();
  mempool_ = rte_pktmbuf_pool_create(
      name.c_str(), static_cast<unsigned>(capacity), std::min(cache, most),
      Packet::kPrivateSize, Packet::kHeadroom + Packet::kDataRoom,
      static_cast<int>(rte_socket_id()));
  if (mempool_ == nullptr) {
    throw std::runtime_error(
        "cannot make a pool of " + std::to_string(capacity) + " packets (" +
        std::to_string(capacity * sizeof(Packet) >> 20) + " MB) in DPDK's " +
        std::to_string(rte_eal_get_physmem_size() >> 20) +
        " MB: " + rte_strerror(rte_errno));
  }
  rte_mempool_obj_iter(mempool_, ClearPrivateArea, nullptr);
}

PacketPool::~PacketPool() { rte_mempool_free(mempool_); }

PacketPool* PacketPool::Default() {
  MakeDefault(kDefaultCapacity);
  return default_pool;
}

bool PacketPool::MakeDefault(size_t capacity, unsigned cache) {
  const std::lock_guard lock(default_mutex);
  if (default_pool != nullptr) {
    return false;
  }
  default_pool = new PacketPool(capacity, cache);
  return true;
}

Packet* PacketPool::Alloc(uint16_t len) {
  rte_mbuf* mbuf = rte_pktmbuf_alloc(mempool_);
  if (mbuf == nullptr) {
    return nullptr;
  }
  Packet* pkt = Packet::from_mbuf(mbuf);
  Prepare(pkt, len);
  return pkt;
}

bool PacketPool::AllocBulk(Packet** pkts, size_t count, uint16_t len) {
  if (rte_pktmbuf_alloc_bulk(mempool_, reinterpret_cast<rte_mbuf**>(pkts),
                             static_cast<unsigned>(count)) != 0) {
    return false;
  }
  for (size_t i = 0; i < count; i++) {
    Prepare(pkts[i], len);
  }
  return true;
}

}  // namespace bess
