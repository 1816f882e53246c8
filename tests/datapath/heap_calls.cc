// SPDX-License-Identifier: BSD-3-Clause
//
// The test program's own versions of the allocation functions: they count, and
// pass the call on. Where the C library's heap is a sanitizer's, that tells of
// the calls instead.
#include "tests/datapath/heap_calls.h"

#include <malloc.h>
#include <rte_malloc.h>

#include <cerrno>
#include <cstddef>
#include <ostream>

#include "tests/support/next_definition.h"

namespace openflow_test {
namespace {

thread_local bool counting = false;
thread_local HeapCalls calls;

void countOrdinary() {
  if (counting) calls.ordinary++;
}

// The library's function, for a call that is counted.
template <class F>
F* dpdk(const char* name) {
  if (counting) calls.dpdk++;
  return next<F>(name);
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const HeapCalls& calls) {
  return out << calls.ordinary << " of the ordinary heap, " << calls.dpdk
             << " of DPDK's";
}

HeapCalls heapCallsOf(const std::function<void()>& work) {
  calls = {};
  counting = true;
  work();
  counting = false;
  return calls;
}

}  // namespace openflow_test

using openflow_test::countOrdinary;
using openflow_test::dpdk;

#ifdef HEAP_OF_A_SANITIZER

// g++ comes without the header.
extern "C" int __sanitizer_install_malloc_and_free_hooks(
    void (*taken)(const volatile void*, size_t),
    void (*given)(const volatile void*));

namespace {

[[maybe_unused]] const int installed =
    __sanitizer_install_malloc_and_free_hooks(
        [](const volatile void*, size_t) { countOrdinary(); },
        [](const volatile void*) { countOrdinary(); });

}  // namespace

#else

// dlsym allocates, so these take the library's functions by their other names.
// new and delete come here, too.
extern "C" {

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* block);

void* malloc(size_t size) noexcept {
  countOrdinary();
  return __libc_malloc(size);
}

void* calloc(size_t count, size_t size) noexcept {
  countOrdinary();
  return __libc_calloc(count, size);
}

void* realloc(void* block, size_t size) noexcept {
  countOrdinary();
  return __libc_realloc(block, size);
}

void* memalign(size_t alignment, size_t size) noexcept {
  countOrdinary();
  return __libc_memalign(alignment, size);
}

void* aligned_alloc(size_t alignment, size_t size) noexcept {
  return memalign(alignment, size);
}

int posix_memalign(void** block, size_t alignment, size_t size) noexcept {
  void* taken = memalign(alignment, size);
  if (taken == nullptr) return ENOMEM;
  *block = taken;
  return 0;
}

void free(void* block) noexcept {
  countOrdinary();
  __libc_free(block);
}
}

#endif

extern "C" {

void* rte_malloc(const char* type, size_t size, unsigned align) {
  return dpdk<decltype(rte_malloc)>("rte_malloc")(type, size, align);
}

void* rte_zmalloc(const char* type, size_t size, unsigned align) {
  return dpdk<decltype(rte_zmalloc)>("rte_zmalloc")(type, size, align);
}

void* rte_calloc(const char* type, size_t count, size_t size, unsigned align) {
  return dpdk<decltype(rte_calloc)>("rte_calloc")(type, count, size, align);
}

void* rte_realloc(void* block, size_t size, unsigned align) {
  return dpdk<decltype(rte_realloc)>("rte_realloc")(block, size, align);
}

void* rte_malloc_socket(const char* type, size_t size, unsigned align,
                        int socket) {
  return dpdk<decltype(rte_malloc_socket)>("rte_malloc_socket")(type, size,
                                                                align, socket);
}

void* rte_zmalloc_socket(const char* type, size_t size, unsigned align,
                         int socket) {
  return dpdk<decltype(rte_zmalloc_socket)>("rte_zmalloc_socket")(
      type, size, align, socket);
}

void* rte_calloc_socket(const char* type, size_t count, size_t size,
                        unsigned align, int socket) {
  return dpdk<decltype(rte_calloc_socket)>("rte_calloc_socket")(
      type, count, size, align, socket);
}

void* rte_realloc_socket(void* block, size_t size, unsigned align, int socket) {
  return dpdk<decltype(rte_realloc_socket)>("rte_realloc_socket")(
      block, size, align, socket);
}

void rte_free(void* block) { dpdk<decltype(rte_free)>("rte_free")(block); }
}
