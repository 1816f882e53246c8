// SPDX-License-Identifier: BSD-3-Clause
//
// liburcu's hash table, as ThreadSanitizer should see it: what was done to a
// node before it was added happens before what its finders do with it, and what
// was done before the table's worker was given work happens before that work.
#include <sanitizer/tsan_interface.h>
#include <urcu/rculfhash.h>

#include "tests/support/next_definition.h"
#include "tests/thread_sanitizer/ignore.h"
#include "tests/thread_sanitizer/pending.h"

using openflow_test::next;
using tsan_models::Ignore;

namespace {

// A caller's match function, which reads nodes that it has not been handed yet.
struct Match {
  cds_lfht* table;
  cds_lfht_match_fct function;
  const void* key;
};

int match(cds_lfht_node* node, const void* key) {
  const auto* wanted = static_cast<const Match*>(key);
  __tsan_acquire(wanted->table);
  return wanted->function(node, wanted->key);
}

using Work = void(void*);
using Works = tsan_models::Pending<void, Work>;

void runWork(void* item) { Works::instance().take(item)(item); }

}  // namespace

extern "C" {

// The library's own, by which its functions hand tables that grow, shrink or go
// to a worker; it exports this without declaring it.
void urcu_workqueue_queue_work(void* queue, void* item, Work* work) {
  static auto* real =
      next<decltype(urcu_workqueue_queue_work)>("urcu_workqueue_queue_work");
  Works::instance().give(item, work);
  real(queue, item, runWork);
}

void cds_lfht_add(cds_lfht* table, unsigned long hash, cds_lfht_node* node) {
  static auto* real = next<decltype(cds_lfht_add)>("cds_lfht_add");
  __tsan_release(table);
  real(table, hash, node);
}

cds_lfht_node* cds_lfht_add_unique(cds_lfht* table, unsigned long hash,
                                   cds_lfht_match_fct function, const void* key,
                                   cds_lfht_node* node) {
  static auto* real =
      next<decltype(cds_lfht_add_unique)>("cds_lfht_add_unique");
  const Match wanted = {table, function, key};
  __tsan_release(table);
  cds_lfht_node* there = real(table, hash, match, &wanted, node);
  __tsan_acquire(table);
  return there;
}

cds_lfht_node* cds_lfht_add_replace(cds_lfht* table, unsigned long hash,
                                    cds_lfht_match_fct function,
                                    const void* key, cds_lfht_node* node) {
  static auto* real =
      next<decltype(cds_lfht_add_replace)>("cds_lfht_add_replace");
  const Match wanted = {table, function, key};
  __tsan_release(table);
  cds_lfht_node* old = real(table, hash, match, &wanted, node);
  __tsan_acquire(table);
  return old;
}

void cds_lfht_lookup(cds_lfht* table, unsigned long hash,
                     cds_lfht_match_fct function, const void* key,
                     cds_lfht_iter* iter) {
  static auto* real = next<decltype(cds_lfht_lookup)>("cds_lfht_lookup");
  const Match wanted = {table, function, key};
  real(table, hash, match, &wanted, iter);
  __tsan_acquire(table);
}

void cds_lfht_first(cds_lfht* table, cds_lfht_iter* iter) {
  static auto* real = next<decltype(cds_lfht_first)>("cds_lfht_first");
  real(table, iter);
  __tsan_acquire(table);
}

void cds_lfht_next(cds_lfht* table, cds_lfht_iter* iter) {
  static auto* real = next<decltype(cds_lfht_next)>("cds_lfht_next");
  real(table, iter);
  __tsan_acquire(table);
}

// It frees what the worker has allocated, once it has seen the worker's end in
// a counter.
int cds_lfht_destroy(cds_lfht* table, pthread_attr_t** attributes) {
  static auto* real = next<decltype(cds_lfht_destroy)>("cds_lfht_destroy");
  const Ignore ignore;
  return real(table, attributes);
}

}  // extern "C"
