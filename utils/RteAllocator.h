// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <rte_malloc.h>

#include <cstddef>
#include <string>
#include <utility>

namespace Dpdk {

// What memory from DPDK's heap is aligned to: a cache line.
inline constexpr unsigned kRteAlignment = 64;

// Stops the process: the DPDK heap could not give `bytes` for `type`.
[[noreturn]] void allocationFailed(const std::string& type, size_t bytes);

// The operations of an allocator of T, so that code can take one without
// knowing where the memory comes from. Never deleted through this base.
template <class T>
class RteAllocatorBase {
 public:
  using value_type = T;
  using pointer = T*;
  using size_type = size_t;

  virtual pointer allocate(size_type n, const void* hint = nullptr) = 0;
  virtual void deallocate(pointer p, size_type n) = 0;

 protected:
  ~RteAllocatorBase() = default;
};

// Allocates from DPDK's heap, in the name that `dpdk-proc-info` and
// rte_malloc_dump_heaps() show. Callable from any thread.
template <class T>
class RteAllocator : public RteAllocatorBase<T> {
 public:
  using typename RteAllocatorBase<T>::pointer;
  using typename RteAllocatorBase<T>::size_type;

  explicit RteAllocator(std::string name) : name_(std::move(name)) {}

  // Zero-filled room for n objects, which are not constructed. Never null: a
  // dry heap is fatal. The hint is ignored.
  pointer allocate(size_type n, const void* hint = nullptr) override {
    static_cast<void>(hint);
    void* memory = rte_zmalloc(name_.c_str(), n * sizeof(T), kRteAlignment);
    if (memory == nullptr) {
      allocationFailed(name_, n * sizeof(T));
    }
    return static_cast<pointer>(memory);
  }

  void deallocate(pointer p, size_type n) override {
    static_cast<void>(n);
    if (p != nullptr) {
      rte_free(p);
    }
  }

  const std::string& name() const { return name_; }

 private:
  std::string name_;
};

}  // namespace Dpdk
