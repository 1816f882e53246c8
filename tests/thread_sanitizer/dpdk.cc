// SPDX-License-Identifier: BSD-3-Clause
//
// DPDK, as ThreadSanitizer should see it: its heap and its packet pools hand
// memory from one thread to another, and an lcore's identity, with the caches
// that go with it, passes from a thread to a later one. Their locks are
// assembly.
#include <rte_lcore.h>
#include <rte_malloc.h>
#include <rte_mempool.h>
#include <sanitizer/tsan_interface.h>

#include <array>

#include "tests/support/next_definition.h"
#include "tests/thread_sanitizer/ignore.h"

using openflow_test::next;
using tsan_models::Ignore;

namespace {

char heap;
char lcores;

void* allocated(void* memory) {
  __tsan_acquire(&heap);
  return memory;
}

// The functions of each kind of pool, by its index.
std::array<rte_mempool_ops, RTE_MEMPOOL_MAX_OPS_IDX> poolOps;

int enqueue(rte_mempool* pool, void* const* objects, unsigned count) {
  for (unsigned i = 0; i < count; i++) __tsan_release(objects[i]);
  return poolOps[static_cast<size_t>(pool->ops_index)].enqueue(pool, objects,
                                                               count);
}

int dequeue(rte_mempool* pool, void** objects, unsigned count) {
  const int rc = poolOps[static_cast<size_t>(pool->ops_index)].dequeue(
      pool, objects, count);
  for (unsigned i = 0; rc == 0 && i < count; i++) __tsan_acquire(objects[i]);
  return rc;
}

}  // namespace

extern "C" {

void* rte_malloc(const char* type, size_t size, unsigned align) {
  static auto* real = next<decltype(rte_malloc)>("rte_malloc");
  const Ignore ignore;
  return allocated(real(type, size, align));
}

void* rte_zmalloc(const char* type, size_t size, unsigned align) {
  static auto* real = next<decltype(rte_zmalloc)>("rte_zmalloc");
  const Ignore ignore;
  return allocated(real(type, size, align));
}

void* rte_zmalloc_socket(const char* type, size_t size, unsigned align,
                         int socket) {
  static auto* real = next<decltype(rte_zmalloc_socket)>("rte_zmalloc_socket");
  const Ignore ignore;
  return allocated(real(type, size, align, socket));
}

void rte_free(void* memory) {
  static auto* real = next<decltype(rte_free)>("rte_free");
  __tsan_release(&heap);
  const Ignore ignore;
  real(memory);
}

int rte_mempool_register_ops(const rte_mempool_ops* ops) {
  static auto* real =
      next<decltype(rte_mempool_register_ops)>("rte_mempool_register_ops");
  rte_mempool_ops watched = *ops;
  watched.enqueue = enqueue;
  watched.dequeue = dequeue;
  const int index = real(&watched);
  if (index >= 0) poolOps[static_cast<size_t>(index)] = *ops;
  return index;
}

int rte_thread_register() {
  static auto* real =
      next<decltype(rte_thread_register)>("rte_thread_register");
  const int rc = real();
  __tsan_acquire(&lcores);
  return rc;
}

void rte_thread_unregister() {
  static auto* real =
      next<decltype(rte_thread_unregister)>("rte_thread_unregister");
  __tsan_release(&lcores);
  real();
}

}  // extern "C"
