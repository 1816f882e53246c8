// SPDX-License-Identifier: BSD-3-Clause
#include "packet_pool.h"

#include <rte_errno.h>
#include <rte_lcore.h>
#include <rte_mbuf_pool_ops.h>
#include <rte_memory.h>

#include <algorithm>
#include <atomic>
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

// Where devices use the process's own addresses, they may also see a packet
// that lies across pages; otherwise no device does.
void MakePacket(rte_mempool* pool, void* arg, void* object, unsigned index) {
  if (rte_eal_iova_mode() == RTE_IOVA_VA) {
    auto* header = static_cast<rte_mempool_objhdr*>(
        RTE_PTR_SUB(object, sizeof(rte_mempool_objhdr)));
    header->iova = reinterpret_cast<uintptr_t>(object);
  }
  // Zeroes the private area, too: what the memory held before it became a pool
  // must not be read as valid.
  rte_pktmbuf_init(pool, arg, object, index);
}

// A pool whose packets may lie across pages. DPDK's own function for packet
// pools keeps each within one, for devices that need that; without hugepages
// one packet would get a page of its own, and all packets' headers and first
// bytes, at the same place of each page, would share a few lines of the
// processor's first cache. Null, and rte_errno set, without memory.
rte_mempool* MakeMempool(const std::string& name, size_t capacity,
                         unsigned cache) {
  constexpr unsigned kObjectSize = sizeof(Packet);
  rte_mempool* pool = rte_mempool_create_empty(
      name.c_str(), static_cast<unsigned>(capacity), kObjectSize, cache,
      sizeof(rte_pktmbuf_pool_private), static_cast<int>(rte_socket_id()),
      RTE_MEMPOOL_F_NO_IOVA_CONTIG);
  if (pool == nullptr) {
    return nullptr;
  }
  rte_pktmbuf_pool_private settings = {};
  settings.mbuf_data_room_size = Packet::kHeadroom + Packet::kDataRoom;
  settings.mbuf_priv_size = Packet::kPrivateSize;
  const int error =
      rte_mempool_set_ops_byname(pool, rte_mbuf_best_mempool_ops(), nullptr);
  if (error == 0) {
    rte_pktmbuf_pool_init(pool, &settings);
  }
  const int added = error == 0 ? rte_mempool_populate_default(pool) : error;
  if (added < 0) {
    rte_mempool_free(pool);
    rte_errno = -added;
    return nullptr;
  }
  rte_mempool_obj_iter(pool, MakePacket, nullptr);
  return pool;
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
  mempool_ = MakeMempool(name, capacity, std::min(cache, most));
  if (mempool_ == nullptr) {
    throw std::runtime_error(
        "cannot make a pool of " + std::to_string(capacity) + " packets (" +
        std::to_string(capacity * sizeof(Packet) >> 20) + " MB) in DPDK's " +
        std::to_string(rte_eal_get_physmem_size() >> 20) +
        " MB: " + rte_strerror(rte_errno));
  }
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
