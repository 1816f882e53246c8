// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <rte_hash_crc.h>
#include <rte_malloc.h>
#include <urcu-qsbr.h>
#include <urcu/rculfhash.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <iostream>
#include <new>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "utils/RteAllocator.h"

// One entry of a KoRcuHt: two cache lines of DPDK memory.
template <class K, class V>
struct alignas(64) KoRcuHtNode {
  cds_lfht_node link;  // first: liburcu hands links out, we read nodes
  rcu_head rcu;
  K key;
  V value;
  void (*keyRelease)(K);    // null: the key needs none
  void (*valueRelease)(V);  // null: the value needs none
  bool keyHandedOver;       // a newer node of this key has taken the key over
  void* owner;              // the KoRcuHt that holds the node
};

// A hash table from a 32-bit key to a value, for readers that never lock.
//
// Readers and walkers must be online QSBR readers; what they found stays valid
// until their next quiescent state. Changes are atomic for readers; a node that
// was removed or replaced is released after a grace period, by liburcu's
// call_rcu thread or, in synchronous mode, before the change returns.
//
// A deferred release never touches the table, so the table may be destroyed
// with releases still pending. It does run the callbacks given to addReplace:
// drain with rcu_barrier() before their code is unloaded.
template <class K, class V, class A = Dpdk::RteAllocator<KoRcuHtNode<K, V>>>
class KoRcuHt {
 public:
  using Node = KoRcuHtNode<K, V>;
  using ValueRelease = void (*)(V);

  static_assert(sizeof(K) == 4, "keys are hashed as one 32-bit word");
  static_assert(std::is_standard_layout_v<Node> && offsetof(Node, link) == 0);
  static_assert(std::is_base_of_v<Dpdk::RteAllocatorBase<Node>, A>,
                "nodes go back with rte_free");

  static constexpr uint32_t kDefaultSize = 128;

  // Nodes carry the DPDK type `prefix`_KoRcuHt. `size` is the initial and the
  // smallest number of buckets, a power of two. Throws std::runtime_error.
  explicit KoRcuHt(const std::string& prefix, uint32_t size = kDefaultSize,
                   bool deferFree = true)
      : alloc_(prefix + "_" + "KoRcuHt"),
        size_(size),
        seed_(static_cast<uint32_t>(time(nullptr))),
        deferFree_(deferFree) {
    ht_ = cds_lfht_new(size_, size_, 0,
                       CDS_LFHT_AUTO_RESIZE | CDS_LFHT_ACCOUNTING, nullptr);
    if (ht_ == nullptr) {
      std::cerr << "Error allocating hash table" << std::endl;
      throw std::runtime_error("failed to construct");
    }
  }

  KoRcuHt(const KoRcuHt&) = delete;
  KoRcuHt& operator=(const KoRcuHt&) = delete;

  // Releases every node after one grace period. No other thread may be able to
  // reach the table any more. Throws std::runtime_error when liburcu refuses.
  ~KoRcuHt() noexcept(false) {
    // Linked as they would be on their way to call_rcu's thread: destruction
    // must not need memory.
    cds_wfcq_node* removed = nullptr;
    cds_lfht_iter it;
    for (Node* node = first(&it); node != nullptr; node = next(&it)) {
      if (unlink(node)) {
        node->rcu.next.next = removed;
        removed = &node->rcu.next;
      } else {
        freeNode(node);
      }
    }
    synchronize_rcu();
    while (removed != nullptr) {
      Node* node = asNode(caa_container_of(removed, rcu_head, next));
      removed = removed->next;
      freeNode(node);
    }
    destroyTable();
  }

  // The key's node, or null.
  Node* lookup(const K& key) const {
    cds_lfht_iter it;
    cds_lfht_lookup(ht_, hash(key), koMatch, &key, &it);
    return asNode(cds_lfht_iter_get_node(&it));
  }

  // Stores value under key; a node that was there is released later, its key
  // excepted, which the new node takes over. `valueRelease` may be null.
  void addReplace(const K& key, const V& value, ValueRelease valueRelease) {
    Node* node = new (alloc_.allocate(1)) Node{};
    node->key = key;
    node->value = value;
    node->valueRelease = valueRelease;
    node->owner = this;
    Node* old = asNode(
        cds_lfht_add_replace(ht_, hash(key), koMatch, &node->key, &node->link));
    if (old != nullptr) {
      old->keyHandedOver = true;
      if (old->valueRelease == nullptr) {
        old->valueRelease = valueRelease;
      }
      retire(old);
    }
  }

  // Removes the key's node, if any, and releases it later.
  void erase(const K& key) {
    Node* node = lookup(key);
    if (node == nullptr) {
      return;
    }
    if (unlink(node)) {
      retire(node);
    } else {
      freeNode(node);
    }
  }

  // Walk every node: first(), then next() until null, with one iterator.
  Node* first(cds_lfht_iter* it) const {
    cds_lfht_first(ht_, it);
    return asNode(cds_lfht_iter_get_node(it));
  }
  Node* next(cds_lfht_iter* it) const {
    cds_lfht_next(ht_, it);
    return asNode(cds_lfht_iter_get_node(it));
  }

  // liburcu's match function: whether the node holds the key pointed to.
  static int koMatch(cds_lfht_node* link, const void* key) {
    return asNode(link)->key == *static_cast<const K*>(key);
  }

  // CRC32C of the key, started with this table's seed.
  uint32_t hash(const K& key) const {
    return rte_hash_crc_4byte(static_cast<uint32_t>(key), seed_);
  }

  cds_lfht* handle() const { return ht_; }
  uint32_t size() const { return size_; }
  uint32_t seed() const { return seed_; }
  bool deferFree() const { return deferFree_; }
  const A& allocator() const { return alloc_; }

 private:
  static Node* asNode(cds_lfht_node* link) {
    return reinterpret_cast<Node*>(link);  // the link is the first member
  }

  static Node* asNode(rcu_head* head) {
    return reinterpret_cast<Node*>(reinterpret_cast<char*>(head) -
                                   offsetof(Node, rcu));
  }

  // False when another writer unlinked the node first.
  bool unlink(Node* node) {
    const bool unlinked = cds_lfht_del(ht_, &node->link) == 0;
    node->keyHandedOver = false;
    return unlinked;
  }

  // Frees an unlinked node once no reader can hold it.
  void retire(Node* node) {
    if (deferFree_) {
      call_rcu(&node->rcu, freeDeferred);
    } else {
      synchronize_rcu();
      freeNode(node);
    }
  }

  static void freeDeferred(rcu_head* head) { freeNode(asNode(head)); }

  // Static, and with rte_free instead of the allocator, because the table may
  // be gone. A release that throws terminates the process: nobody up the stack
  // of a call_rcu thread could handle it.
  static void freeNode(Node* node) noexcept {
    if (node->keyRelease != nullptr && !node->keyHandedOver) {
      node->keyRelease(node->key);
    }
    if (node->valueRelease != nullptr) {
      node->valueRelease(node->value);
    }
    rte_free(node);
  }

  void destroyTable() {
    // liburcu waits for its resize worker, which may wait for a grace period:
    // an online reader must not hold that up.
    const bool online = rcu_read_ongoing() != 0;
    if (online) {
      rcu_thread_offline();
    }
    const int failed = cds_lfht_destroy(ht_, nullptr);
    if (online) {
      rcu_thread_online();
    }
    if (failed != 0) {
      std::cerr << "Destroying hash table failed" << std::endl;
      throw std::runtime_error("failed to destruct object");
    }
    ht_ = nullptr;
  }

  A alloc_;
  cds_lfht* ht_ = nullptr;
  uint32_t size_ = kDefaultSize;
  uint32_t seed_;
  bool deferFree_ = true;
};

namespace ko_rcu_ht_internal {

// The layout that every node with a pointer for value has.
using PointerNode = KoRcuHtNode<uint32_t, void*>;
static_assert(sizeof(PointerNode) == 128 && alignof(PointerNode) == 64);
static_assert(offsetof(PointerNode, link) == 0);
static_assert(offsetof(PointerNode, rcu) == 16);
static_assert(offsetof(PointerNode, key) == 32);
static_assert(offsetof(PointerNode, value) == 40);
static_assert(offsetof(PointerNode, keyRelease) == 48);
static_assert(offsetof(PointerNode, valueRelease) == 56);
static_assert(offsetof(PointerNode, keyHandedOver) == 64);
static_assert(offsetof(PointerNode, owner) == 72);

}  // namespace ko_rcu_ht_internal
