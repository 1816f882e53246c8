// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdlib>
#include <functional>
#include <mutex>
#include <new>
#include <unordered_map>

namespace tsan_models {

// What a library will call, by the item it will call it with. An item's giver
// comes before its taker, by the lock. Takes no memory by `new`, which some
// tests refuse.
template <class Item, class Function>
class Pending {
 public:
  // Never destroyed: libraries call until the process ends.
  static Pending& instance() {
    alignas(Pending) static char place[sizeof(Pending)];
    static auto* pending = new (place) Pending;
    return *pending;
  }

  void give(Item* item, Function* function) {
    const std::lock_guard lock(mutex_);
    functions_[item] = function;
  }

  Function* take(Item* item) {
    const std::lock_guard lock(mutex_);
    const auto found = functions_.find(item);
    Function* function = found->second;
    functions_.erase(found);
    return function;
  }

 private:
  template <class T>
  struct Allocator {
    using value_type = T;
    Allocator() = default;
    template <class U>
    explicit(false) Allocator(const Allocator<U>& /*other*/) {}
    T* allocate(size_t count) {
      return static_cast<T*>(std::malloc(count * sizeof(T)));
    }
    void deallocate(T* memory, size_t /*count*/) { std::free(memory); }
    bool operator==(const Allocator& /*other*/) const { return true; }
  };

  std::mutex mutex_;
  std::unordered_map<Item*, Function*, std::hash<Item*>, std::equal_to<>,
                     Allocator<std::pair<Item* const, Function*>>>
      functions_;
};

}  // namespace tsan_models
