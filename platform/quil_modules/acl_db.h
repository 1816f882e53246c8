// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <rte_acl.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>

#include "platform/mio/mio.h"

// The database of classifiers that the modules of a process share.
//
//   AclDb -- target --> AclCtxTable --> AclCtx[65536]   the slots
//                                         |
//                                         v  RCU-published, null: none
//                                       AclCtxData      one classifier
//                                         |-> rte_acl_ctx
//                                         `-> KoAclUserdata_[]  by result
//
// A target is a kind of module: what it hangs on its userdata records is its
// own affair, except that releaseUserdata() knows how to free it.
namespace QuilModules {

// What a classifier's result selects.
struct KoAclUserdata_ {
  uint64_t word0;
  void* action;
  uint64_t word2;
  uint64_t word3;
  uint64_t word4;
};
using KoAclUserdata = KoAclUserdata_;
static_assert(sizeof(KoAclUserdata_) == 40);
static_assert(offsetof(KoAclUserdata_, action) == 8);

// One published classifier. Owns all three levels: the classifier, the array,
// and what the array's records own.
struct AclCtxData {
  rte_acl_ctx* ctx;
  KoAclUserdata_* userdata;  // from new[]
  uint32_t numUserdata;
};

// A slot. `data` is written with rcu_xchg_pointer() and read by workers with
// rcu_dereference().
struct alignas(64) AclCtx {
  AclCtxData* data;
  uint32_t generation;  // builds so far; part of the classifiers' names
  // The classifier of `data` when its module freed it and left the record.
  const rte_acl_ctx* freedCtx;
};
static_assert(sizeof(AclCtx) == 64, "neighbours share no cache line");
static_assert(offsetof(AclCtx, data) == 0);

struct AclCtxTable {
  uint64_t numSlots;
  AclCtx* slots;
};
static_assert(offsetof(AclCtxTable, slots) == 8);

inline constexpr unsigned kNumTargets = 8;
inline constexpr uint64_t kSlotsPerTarget = 65536;

// Frees the userdata of a record that no reader can hold any more: the blocks
// its entries own, as far as the target has any, and the array.
//
// Only the entries [0, numUserdata) are visited. Modules number their rules
// from 1, so the block of the last rule stays allocated; the modules of both
// targets rely on this bound.
void releaseUserdata(AclCtxData* data, unsigned target);

// The singleton "QuilModules::AclDb".
//
// Slots belong to the database. When the last reference to it goes, they stay
// readable until the next database is made: that one starts with empty slots,
// and frees what the old ones still hold after a grace period. Databases are
// made on the command thread, which may wait.
class AclDb : public Mio::Entity {
 public:
  static const Mio::Entity::Type& entityType();

  // The target's slots, made when first asked for; null for a target that the
  // database does not know. Thread-safe.
  AclCtxTable* getAclCtxTableByTarget(unsigned target);

 private:
  // By target; null where nobody has asked yet.
  struct Slots;
  using Tables = std::array<std::unique_ptr<Slots>, kNumTargets>;
  class Leftovers;

  AclDb();
  ~AclDb() override;

  std::mutex mutex_;
  std::list<Tables> tables_;  // one; a list, to be moved without memory
};

}  // namespace QuilModules
