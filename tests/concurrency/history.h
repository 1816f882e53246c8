// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "tests/concurrency/flow_sets.h"

namespace openflow_test {

// What one table and family has shown to the workers, change after change: the
// version of a flow set, 0 for none. One thread writes it, around each command;
// workers ask what they may have seen.
class History {
 public:
  explicit History(size_t maxChanges) : versions_(maxChanges + 1) {}

  // Around the command that shows `version`.
  void begin(uint32_t version) {
    const size_t change = done_.load(std::memory_order_relaxed) + 1;
    versions_.at(change).store(version, std::memory_order_relaxed);
    begun_.store(change, std::memory_order_release);
  }
  void end() {
    done_.store(begun_.load(std::memory_order_relaxed),
                std::memory_order_release);
  }

  // The change that is certain to be in effect, and the last that may be.
  size_t done() const { return done_.load(std::memory_order_acquire); }
  size_t begun() const { return begun_.load(std::memory_order_acquire); }

  // Whether one of the changes from `first` to `last` showed `version`.
  bool showed(uint32_t version, size_t first, size_t last) const {
    for (size_t change = last + 1; change-- > first;) {
      if (versions_[change].load(std::memory_order_relaxed) == version) {
        return true;
      }
    }
    return false;
  }

 private:
  std::vector<std::atomic<uint32_t>> versions_;
  std::atomic<size_t> begun_ = 0;
  std::atomic<size_t> done_ = 0;
};

// Of each step and family.
using Histories = std::array<std::array<History*, kFamilies>, kSteps>;

}  // namespace openflow_test
