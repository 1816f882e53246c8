// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstddef>
#include <type_traits>

namespace bess::internal {

// Maps `bytes` of zeroed memory that costs nothing until it is touched.
// Throws std::bad_alloc.
void* MapLazily(size_t bytes);
void Unmap(void* memory, size_t bytes);

// A fixed array of plain records, zeroed, that takes up memory only as far as
// it has been used.
template <typename T>
class LazyArray {
  static_assert(std::is_trivial_v<T>);

 public:
  explicit LazyArray(size_t size)
      : size_(size), data_(static_cast<T*>(MapLazily(size * sizeof(T)))) {}
  ~LazyArray() { Unmap(data_, size_ * sizeof(T)); }
  LazyArray(const LazyArray&) = delete;
  LazyArray& operator=(const LazyArray&) = delete;

  T& operator[](size_t i) { return data_[i]; }
  size_t size() const { return size_; }

 private:
  size_t size_;
  T* data_;
};

}  // namespace bess::internal
