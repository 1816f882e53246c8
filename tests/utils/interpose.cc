// SPDX-License-Identifier: BSD-3-Clause
#include "tests/utils/interpose.h"

#include <rte_malloc.h>
#include <urcu-qsbr.h>
#include <urcu/rculfhash.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <mutex>

#include "tests/support/next_definition.h"

namespace Interposed {

namespace {

std::mutex mutex;

// liburcu's own threads wait for grace periods, too.
thread_local bool countSyncs = false;

using openflow_test::next;

}  // namespace

State& state() {
  static State state;
  return state;
}

Scope::Scope() {
  rcu_barrier();
  countSyncs = true;
  state() = State{};
}

Scope::~Scope() {
  rcu_barrier();
  countSyncs = false;
  state() = State{};
}

int countFrees(const void* p) {
  const std::lock_guard lock(mutex);
  return static_cast<int>(std::ranges::count(state().frees, p));
}

}  // namespace Interposed

using Interposed::countSyncs;
using Interposed::mutex;
using Interposed::next;
using Interposed::state;

extern "C" {

cds_lfht* _cds_lfht_new(unsigned long initSize, unsigned long minBuckets,
                        unsigned long maxBuckets, int flags,
                        const cds_lfht_mm_type* memory,
                        const rcu_flavor_struct* flavor,
                        pthread_attr_t* attributes) {
  state().newTable = {initSize, minBuckets, maxBuckets, flags,
                      memory,   flavor,     attributes};
  if (state().failNew) {
    return nullptr;
  }
  static auto* real = next<decltype(_cds_lfht_new)>("_cds_lfht_new");
  return real(initSize, minBuckets, maxBuckets, flags, memory, flavor,
              attributes);
}

int cds_lfht_destroy(cds_lfht* table, pthread_attr_t** attributes) {
  state().destroys.push_back(rcu_read_ongoing() != 0);
  static auto* real = next<decltype(cds_lfht_destroy)>("cds_lfht_destroy");
  const int result = real(table, attributes);
  return state().failDestroy ? -EBUSY : result;
}

int cds_lfht_del(cds_lfht* table, cds_lfht_node* node) {
  static auto* real = next<decltype(cds_lfht_del)>("cds_lfht_del");
  const int result = real(table, node);
  return state().failDel ? -ENOENT : result;
}

void urcu_qsbr_synchronize_rcu(void) {
  if (countSyncs) {
    state().syncs++;
  }
  static auto* real =
      next<decltype(urcu_qsbr_synchronize_rcu)>("urcu_qsbr_synchronize_rcu");
  real();
}

void* rte_zmalloc(const char* type, size_t size, unsigned align) {
  static auto* real = next<decltype(rte_zmalloc)>("rte_zmalloc");
  void* result = state().failZmalloc ? nullptr : real(type, size, align);
  const std::lock_guard lock(mutex);
  state().zmallocs.push_back({type, size, align, result});
  return result;
}

void rte_free(void* p) {
  {
    const std::lock_guard lock(mutex);
    state().frees.push_back(p);
  }
  static auto* real = next<decltype(rte_free)>("rte_free");
  real(p);
}

time_t time(time_t* out) noexcept {
  time_t now = state().now;
  if (now == 0) {
    timespec real;
    clock_gettime(CLOCK_REALTIME, &real);
    now = real.tv_sec;
  }
  if (out != nullptr) {
    *out = now;
  }
  return now;
}
}
