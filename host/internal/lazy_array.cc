// SPDX-License-Identifier: BSD-3-Clause
#include "internal/lazy_array.h"

#include <sys/mman.h>

#include <new>

namespace bess::internal {

void* MapLazily(size_t bytes) {
  void* memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (memory == MAP_FAILED) {
    throw std::bad_alloc();
  }
  return memory;
}

void Unmap(void* memory, size_t bytes) { munmap(memory, bytes); }

}  // namespace bess::internal
