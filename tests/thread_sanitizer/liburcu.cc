// SPDX-License-Identifier: BSD-3-Clause
//
// liburcu's QSBR flavour, as ThreadSanitizer should see it:
//
//   publishing a pointer               happens before  what its readers do
//   all a reader does before it is     happens before  the end of a grace
//   period quiescent, offline or gone                         that waits for it
//   call_rcu                           happens before  its callback
//   a callback                         happens before  the end of rcu_barrier
//
// A reader that has not been quiescent is in no order with a callback: memory
// that goes too early is reported. The exchange of a pointer is an atomic
// operation here, for which rcu_dereference has the matching load.
#include <sanitizer/tsan_interface.h>
#include <urcu-qsbr.h>

#include "tests/support/next_definition.h"
#include "tests/thread_sanitizer/ignore.h"
#include "tests/thread_sanitizer/pending.h"

using openflow_test::next;
using tsan_models::Ignore;

namespace {

using Callback = void(rcu_head*);
using Callbacks = tsan_models::Pending<rcu_head, Callback>;

// Addresses that stand for the two orders.
char gracePeriods;
char callbacks;

void runCallback(rcu_head* head) {
  Callback* callback = Callbacks::instance().take(head);
  __tsan_acquire(&gracePeriods);
  callback(head);
  __tsan_release(&callbacks);
}

}  // namespace

extern "C" {

void urcu_qsbr_quiescent_state() {
  static auto* real =
      next<decltype(urcu_qsbr_quiescent_state)>("urcu_qsbr_quiescent_state");
  __tsan_release(&gracePeriods);
  real();
}

void urcu_qsbr_thread_offline() {
  static auto* real =
      next<decltype(urcu_qsbr_thread_offline)>("urcu_qsbr_thread_offline");
  __tsan_release(&gracePeriods);
  real();
}

void urcu_qsbr_unregister_thread() {
  static auto* real = next<decltype(urcu_qsbr_unregister_thread)>(
      "urcu_qsbr_unregister_thread");
  __tsan_release(&gracePeriods);
  real();
}

void urcu_qsbr_synchronize_rcu() {
  static auto* real =
      next<decltype(urcu_qsbr_synchronize_rcu)>("urcu_qsbr_synchronize_rcu");
  __tsan_release(&gracePeriods);  // a waiting reader is quiescent
  real();
  __tsan_acquire(&gracePeriods);
}

void urcu_qsbr_call_rcu(rcu_head* head, Callback* callback) {
  static auto* real = next<decltype(urcu_qsbr_call_rcu)>("urcu_qsbr_call_rcu");
  Callbacks::instance().give(head, callback);
  real(head, runCallback);
}

void urcu_qsbr_barrier() {
  static auto* real = next<decltype(urcu_qsbr_barrier)>("urcu_qsbr_barrier");
  __tsan_release(&gracePeriods);
  {
    // It allocates what its callback thread frees.
    const Ignore ignore;
    real();
  }
  __tsan_acquire(&callbacks);
}

void* rcu_xchg_pointer_sym(void** p, void* value) {
  return __atomic_exchange_n(p, value, __ATOMIC_SEQ_CST);
}

}  // extern "C"
