// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <rte_malloc.h>
#include <urcu-qsbr.h>

#include <cstddef>
#include <vector>

namespace ofswitch {

// Takes all of the heap but blocks of the sizes `left`, which lie apart.
class FullHeap {
 public:
  explicit FullHeap(size_t left) : FullHeap(std::vector<size_t>{left}) {}

  explicit FullHeap(const std::vector<size_t>& left) {
    rcu_barrier();
    size_t room = 0;
    for (const size_t size : left) room += size + 3 * kSpare;
    void* last = rte_malloc("last", room, 64);
    fill();
    // Nothing but this is free now, so that what it gives lies side by side.
    rte_free(last);
    std::vector<void*> holes;
    for (const size_t size : left) {
      if (size > 0) holes.push_back(rte_malloc("hole", size, 64));
      blocks_.push_back(rte_malloc("apart", 64, 64));
    }
    fill();
    for (void* hole : holes) rte_free(hole);
  }
  ~FullHeap() {
    for (void* block : blocks_) rte_free(block);
  }
  FullHeap(const FullHeap&) = delete;
  FullHeap& operator=(const FullHeap&) = delete;

 private:
  static constexpr size_t kSpare = 192;  // of a block, at most, to its bytes

  void fill() {
    for (size_t size = size_t{64} << 20; size >= 64;) {
      if (void* block = rte_malloc("full", size, 64); block != nullptr) {
        blocks_.push_back(block);
      } else {
        size /= 2;
      }
    }
  }

  std::vector<void*> blocks_;
};

}  // namespace ofswitch
