// SPDX-License-Identifier: BSD-3-Clause
#include "tests/platform/allocation_counter.h"

#include <atomic>
#include <cstdlib>
#include <new>

static std::atomic<int> allocations;

// Requests to be granted before the one that is refused; negative: all.
static std::atomic<int> toGrant{-1};
static std::atomic<bool> refused;

int countAllocations() { return allocations; }

void refuseAllocation(int n) {
  refused = false;
  toGrant = n;
}

bool wasAllocationRefused() {
  toGrant = -1;
  return refused;
}

void* operator new(size_t size) {
  allocations++;
  if (toGrant >= 0 && toGrant-- == 0) {
    refused = true;
    throw std::bad_alloc();
  }
  if (void* p = malloc(size)) {
    return p;
  }
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { free(p); }
void operator delete(void* p, size_t) noexcept { free(p); }
