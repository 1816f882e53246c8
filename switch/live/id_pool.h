// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdint>
#include <vector>

namespace ofswitch {

// Numbers from 1 up to `limit`, exclusive, each with one owner at a time. Who
// gives one back must know that no worker uses it any more.
class IdPool {
 public:
  explicit IdPool(uint32_t limit) : limit_(limit) {}

  // How many can still be taken.
  uint32_t available() const {
    return limit_ - next_ + static_cast<uint32_t>(free_.size());
  }

  // Requires that one is available.
  uint32_t take() {
    if (free_.empty()) return next_++;
    const uint32_t id = free_.back();
    free_.pop_back();
    return id;
  }

  void giveBack(uint32_t id) { free_.push_back(id); }

 private:
  uint32_t limit_;
  uint32_t next_ = 1;
  std::vector<uint32_t> free_;
};

}  // namespace ofswitch
