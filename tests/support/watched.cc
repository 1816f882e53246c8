// SPDX-License-Identifier: BSD-3-Clause
#include "tests/support/watched.h"

#include <atomic>
#include <cstdlib>
#include <new>
#include <stdexcept>

namespace openflow_test {
namespace {

constexpr int kPlaces = 8;

// Plain memory, so that looking at it allocates nothing: null for a free place,
// and this array's own address in place of what has been deleted.
std::atomic<const void*> places[kPlaces];

const void* gone() { return places; }

void noteDeleted(const void* object) {
  if (object == nullptr) {
    return;
  }
  for (std::atomic<const void*>& place : places) {
    const void* seen = object;
    place.compare_exchange_strong(seen, gone());
  }
}

void* allocate(size_t size) {
  if (void* object = malloc(size)) {
    return object;
  }
  throw std::bad_alloc();
}

void* allocate(size_t size, std::align_val_t align) {
  const auto step = static_cast<size_t>(align);
  if (void* object = aligned_alloc(step, (size + step - 1) / step * step)) {
    return object;
  }
  throw std::bad_alloc();
}

void release(void* object) {
  noteDeleted(object);
  free(object);
}

}  // namespace

Watched::Watched(const void* object) : place_(0) {
  for (; place_ < kPlaces; place_++) {
    const void* none = nullptr;
    if (places[place_].compare_exchange_strong(none, object)) {
      return;
    }
  }
  throw std::logic_error("too many objects are watched");
}

Watched::~Watched() { places[place_] = nullptr; }

bool Watched::deleted() const { return places[place_] == gone(); }

}  // namespace openflow_test

using openflow_test::allocate;
using openflow_test::release;

void* operator new(size_t size) { return allocate(size); }
void* operator new(size_t size, std::align_val_t align) {
  return allocate(size, align);
}
void operator delete(void* object) noexcept { release(object); }
void operator delete(void* object, size_t) noexcept { release(object); }
void operator delete(void* object, std::align_val_t) noexcept {
  release(object);
}
void operator delete(void* object, size_t, std::align_val_t) noexcept {
  release(object);
}
