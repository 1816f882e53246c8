// SPDX-License-Identifier: BSD-3-Clause
#include "platform/quil_modules/acl_db.h"

#include <rte_malloc.h>
#include <urcu-qsbr.h>

#include <utility>
#include <vector>

namespace QuilModules {

namespace {

// Targets whose userdata records own a block of DPDK memory.
constexpr unsigned kSparseTarget = 5;  // not every record has one
constexpr unsigned kOpenFlowTarget = 6;

}  // namespace

struct AclDb::Slots {
  Slots() : array(kSlotsPerTarget), table{kSlotsPerTarget, array.data()} {}

  std::vector<AclCtx> array;
  AclCtxTable table;
};

// The slots of databases that are gone, until the next one is made.
class AclDb::Leftovers {
 public:
  static Leftovers& instance() {
    // Never destroyed: a late reader may still look at a slot.
    static auto* leftovers = new Leftovers;
    return *leftovers;
  }

  void add(std::list<Tables>* tables) noexcept {
    const std::lock_guard lock(mutex_);
    kept_.splice(kept_.end(), *tables);
  }

  void cleanUp() {
    const std::list<Tables> kept = take();
    bool waited = false;
    for (const Tables& tables : kept) {
      for (unsigned target = 0; target < kNumTargets; target++) {
        if (tables[target] == nullptr) {
          continue;
        }
        for (AclCtx& slot : tables[target]->array) {
          if (slot.data == nullptr) {
            continue;
          }
          if (!std::exchange(waited, true)) {
            synchronize_rcu();
          }
          freeRecord(slot, target);
        }
      }
    }
  }

 private:
  std::list<Tables> take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(kept_, {});
  }

  static void freeRecord(AclCtx& slot, unsigned target) {
    AclCtxData* data = std::exchange(slot.data, nullptr);
    if (slot.freedCtx != data->ctx) {
      rte_acl_free(data->ctx);
    }
    releaseUserdata(data, target);
    delete data;
  }

  std::mutex mutex_;
  std::list<Tables> kept_;
};

void releaseUserdata(AclCtxData* data, unsigned target) {
  if (data->userdata == nullptr) {
    return;
  }
  for (uint32_t i = 0; i < data->numUserdata; i++) {
    void* block = data->userdata[i].action;
    if (target == kOpenFlowTarget ||
        (target == kSparseTarget && block != nullptr)) {
      rte_free(block);
    }
  }
  delete[] data->userdata;
  data->userdata = nullptr;
}

const Mio::Entity::Type& AclDb::entityType() {
  // Never destroyed, so that it can be asked for at any time.
  static const auto* type = new Mio::Entity::Type{
      "QuilModules::AclDb", [] { return Mio::Ptr<Mio::Entity>(new AclDb); }};
  return *type;
}

AclDb::AclDb() : tables_(1) { Leftovers::instance().cleanUp(); }

AclDb::~AclDb() { Leftovers::instance().add(&tables_); }

AclCtxTable* AclDb::getAclCtxTableByTarget(unsigned target) {
  if (target >= kNumTargets) {
    return nullptr;
  }
  const std::lock_guard lock(mutex_);
  std::unique_ptr<Slots>& slots = tables_.front()[target];
  if (slots == nullptr) {
    slots = std::make_unique<Slots>();
  }
  return &slots->table;
}

}  // namespace QuilModules
