// SPDX-License-Identifier: BSD-3-Clause
#include "tests/platform/allocation_counter.h"

#include <atomic>
#include <cstdlib>
#include <new>

static std::atomic<int> allocations;

int countAllocations() { return allocations; }

void* operator new(size_t size) {
  allocations++;
  if (void* p = malloc(size)) {
    return p;
  }
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { free(p); }
void operator delete(void* p, size_t) noexcept { free(p); }
