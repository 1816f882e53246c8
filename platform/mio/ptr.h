// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstddef>
#include <type_traits>
#include <utility>

namespace Mio {

// A counted pointer to an Entity, one word long: the count is in the entity.
// One Ptr belongs to one thread; copies of it may go to any thread.
template <class T>
class Ptr {
 public:
  Ptr() = default;
  Ptr(std::nullptr_t) {}  // NOLINT: null converts, as for raw pointers
  explicit Ptr(T* entity) : entity_(entity) {
    if (entity_ != nullptr) {
      entity_->addReference();
    }
  }
  Ptr(const Ptr& other) : Ptr(other.entity_) {}
  Ptr(Ptr&& other) noexcept : entity_(std::exchange(other.entity_, nullptr)) {}
  template <class U>
  requires(std::is_convertible_v<U*, T*>) Ptr(const Ptr<U>& other)
      : Ptr(other.get()) {}  // NOLINT: to a base class
  ~Ptr() { reset(); }

  Ptr& operator=(Ptr other) noexcept {
    std::swap(entity_, other.entity_);
    return *this;
  }

  void reset() {
    if (T* entity = std::exchange(entity_, nullptr)) {
      entity->releaseReference();
    }
  }

  T* get() const { return entity_; }
  T* operator->() const { return entity_; }
  T& operator*() const { return *entity_; }
  explicit operator bool() const { return entity_ != nullptr; }

  // Takes over a reference that the caller already counted.
  static Ptr adopt(T* entity) {
    Ptr ptr;
    ptr.entity_ = entity;
    return ptr;
  }

 private:
  T* entity_ = nullptr;
};

template <class T, class U>
bool operator==(const Ptr<T>& a, const Ptr<U>& b) {
  return a.get() == b.get();
}

template <class T>
bool operator==(const Ptr<T>& a, std::nullptr_t) {
  return a.get() == nullptr;
}

// The caller knows that the entity is a T.
template <class T, class U>
Ptr<T> ptrCast(const Ptr<U>& ptr) {
  return Ptr<T>(static_cast<T*>(ptr.get()));
}

}  // namespace Mio
