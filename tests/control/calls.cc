// SPDX-License-Identifier: BSD-3-Clause
#include "tests/control/calls.h"

#include <rte_malloc.h>
#include <urcu-qsbr.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <new>
#include <utility>

#include "modules/openflow/openflow.h"
#include "tests/support/next_definition.h"

namespace Calls {

namespace {

std::mutex mutex;
bool recording = false;
// What the classifier library allocates and frees is its own affair.
thread_local bool inAclLibrary = false;

// Never destroyed: arrays are deleted until the very end.
std::vector<std::pair<void*, size_t>>& arrays() {
  static auto* arrays = new std::vector<std::pair<void*, size_t>>;
  return *arrays;
}

using openflow_test::next;

bool fails(Fault& fault, const char* type) {
  return type != nullptr && state().failType == type && fault.strikes();
}

void recordAllocation(const char* type, size_t size, unsigned align,
                      bool zeroed, void* result) {
  if (!inAclLibrary) {
    state().allocations.push_back(
        {type == nullptr ? "(null)" : type, size, align, zeroed, result});
  }
}

class AclLibrary {
 public:
  AclLibrary() { inAclLibrary = true; }
  ~AclLibrary() { inAclLibrary = false; }
};

uint32_t ruleSizeOf(const rte_acl_ctx* ctx) {
  for (const AclCreate& create : state().aclCreates) {
    if (create.result == ctx) {
      return create.ruleSize;
    }
  }
  return 0;
}

}  // namespace

State& state() {
  static auto* state = new State;
  return *state;
}

Scope::Scope() {
  rcu_barrier();
  const std::lock_guard lock(mutex);
  state() = State{};
  arrays().clear();
  recording = true;
}

Scope::~Scope() {
  rcu_barrier();
  const std::lock_guard lock(mutex);
  recording = false;
  state() = State{};
}

int countFrees(const void* p) {
  const std::lock_guard lock(mutex);
  return static_cast<int>(std::ranges::count(state().frees, p));
}

std::vector<Allocation> allocations(const std::string& type) {
  const std::lock_guard lock(mutex);
  std::vector<Allocation> found;
  std::ranges::copy_if(
      state().allocations, std::back_inserter(found),
      [&](const Allocation& allocation) { return allocation.type == type; });
  return found;
}

std::vector<void*> liveArrays(size_t size) {
  const std::lock_guard lock(mutex);
  std::vector<void*> found;
  for (const auto& [array, arraySize] : arrays()) {
    if (arraySize == size) {
      found.push_back(array);
    }
  }
  return found;
}

}  // namespace Calls

using Calls::AclLibrary;
using Calls::next;
using Calls::state;

extern "C" {

void* rte_malloc(const char* type, size_t size, unsigned align) {
  static auto* real = next<decltype(rte_malloc)>("rte_malloc");
  const std::lock_guard lock(Calls::mutex);
  void* result = Calls::fails(state().failMalloc, type)
                     ? nullptr
                     : real(type, size, align);
  if (result != nullptr) {
    std::memset(result, state().fill, size);
  }
  Calls::recordAllocation(type, size, align, false, result);
  return result;
}

void* rte_zmalloc(const char* type, size_t size, unsigned align) {
  static auto* real = next<decltype(rte_zmalloc)>("rte_zmalloc");
  const std::lock_guard lock(Calls::mutex);
  void* result = Calls::fails(state().failZmalloc, type)
                     ? nullptr
                     : real(type, size, align);
  Calls::recordAllocation(type, size, align, true, result);
  return result;
}

void rte_free(void* p) {
  static auto* real = next<decltype(rte_free)>("rte_free");
  const std::lock_guard lock(Calls::mutex);
  if (!Calls::inAclLibrary) {
    state().frees.push_back(p);
  }
  real(p);
}

cds_lfht* _cds_lfht_new(unsigned long initSize, unsigned long minBuckets,
                        unsigned long maxBuckets, int flags,
                        const cds_lfht_mm_type* memory,
                        const rcu_flavor_struct* flavor,
                        pthread_attr_t* attributes) {
  static auto* real = next<decltype(_cds_lfht_new)>("_cds_lfht_new");
  if (state().failTable.strikes()) {
    return nullptr;
  }
  cds_lfht* table =
      real(initSize, minBuckets, maxBuckets, flags, memory, flavor, attributes);
  state().tablesMade.push_back(table);
  state().tableSizes.push_back(initSize);
  return table;
}

int cds_lfht_destroy(cds_lfht* table, pthread_attr_t** attributes) {
  static auto* real = next<decltype(cds_lfht_destroy)>("cds_lfht_destroy");
  {
    const std::lock_guard lock(Calls::mutex);
    state().tablesDestroyed.push_back(table);
    state().order.push_back(table);
  }
  const int result = real(table, attributes);
  return state().failTableDestroy.strikes() ? -EBUSY : result;
}

rte_acl_ctx* rte_acl_create(const rte_acl_param* param) {
  static auto* real = next<decltype(rte_acl_create)>("rte_acl_create");
  const AclLibrary library;
  rte_acl_ctx* result = state().failAclCreate.strikes() ? nullptr : real(param);
  state().aclCreates.push_back({param->name, param->socket_id, param->rule_size,
                                param->max_rule_num, result});
  return result;
}

int rte_acl_add_rules(rte_acl_ctx* ctx, const rte_acl_rule* rules,
                      uint32_t count) {
  static auto* real = next<decltype(rte_acl_add_rules)>("rte_acl_add_rules");
  const auto* bytes = reinterpret_cast<const uint8_t*>(rules);
  state().aclAdds.push_back(
      {ctx,
       rules,
       {bytes, bytes + size_t{Calls::ruleSizeOf(ctx)} * count},
       count});
  const AclLibrary library;
  return state().failAclAddRules.strikes() ? -ENOMEM : real(ctx, rules, count);
}

int rte_acl_build(rte_acl_ctx* ctx, const rte_acl_config* config) {
  static auto* real = next<decltype(rte_acl_build)>("rte_acl_build");
  state().aclBuilds.push_back({ctx, config});
  const AclLibrary library;
  return state().failAclBuild.strikes() ? -ENOMEM : real(ctx, config);
}

// The linker has the module call this one (see CMakeLists.txt).
int __real__ZN8OpenFlow12updateAclCtxEPN11QuilModules6AclCtxEP11rte_acl_ctxPNS0_14KoAclUserdata_Ej(
    OpenFlow*, QuilModules::AclCtx*, rte_acl_ctx*, QuilModules::KoAclUserdata*,
    uint32_t);
int __wrap__ZN8OpenFlow12updateAclCtxEPN11QuilModules6AclCtxEP11rte_acl_ctxPNS0_14KoAclUserdata_Ej(
    OpenFlow* module, QuilModules::AclCtx* slot, rte_acl_ctx* ctx,
    QuilModules::KoAclUserdata* userdata, uint32_t numUserdata) {
  if (state().failPublish.strikes()) return -1;
  return __real__ZN8OpenFlow12updateAclCtxEPN11QuilModules6AclCtxEP11rte_acl_ctxPNS0_14KoAclUserdata_Ej(
      module, slot, ctx, userdata, numUserdata);
}

void rte_acl_free(rte_acl_ctx* ctx) {
  static auto* real = next<decltype(rte_acl_free)>("rte_acl_free");
  {
    const std::lock_guard lock(Calls::mutex);
    state().aclFrees.push_back(ctx);
    state().order.push_back(ctx);
  }
  const AclLibrary library;
  real(ctx);
}
}

void* operator new(size_t size, const std::nothrow_t&) noexcept {
  if (Calls::recording && state().failNew.strikes()) {
    return nullptr;
  }
  try {
    return ::operator new(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void operator delete(void* object, const std::nothrow_t&) noexcept {
  ::operator delete(object);
}

void* operator new[](size_t size) {
  const std::lock_guard lock(Calls::mutex);
  if (Calls::recording && state().failArrayNew.strikes()) {
    throw std::bad_alloc();
  }
  void* array = ::operator new(size);
  if (Calls::recording) {
    std::memset(array, state().fill, size);
    Calls::arrays().emplace_back(array, size);
  }
  return array;
}

void operator delete[](void* array) noexcept {
  {
    const std::lock_guard lock(Calls::mutex);
    std::erase_if(Calls::arrays(),
                  [&](const auto& entry) { return entry.first == array; });
  }
  ::operator delete(array);
}

void operator delete[](void* array, size_t) noexcept {
  operator delete[](array);
}
