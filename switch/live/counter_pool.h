// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdint>
#include <functional>
#include <unordered_map>

#include "switch/live/id_pool.h"

namespace ofswitch {

// The host's flow counters, as the switch lends them to flows. Only workers
// write counters, so one that is lent again does not start at 0: the pool
// remembers where it stood. That is exact because a counter comes back only
// after a grace period, when nobody can count in it any more.
class CounterPool {
 public:
  // The sum of one counter over all workers.
  using Sum = std::function<uint64_t(uint32_t)>;

  CounterPool(uint32_t limit, Sum sum) : ids_(limit), sum_(std::move(sum)) {}

  uint32_t available() const { return ids_.available(); }

  uint32_t take() {
    const uint32_t id = ids_.take();
    if (const uint64_t start = sum_(id); start != 0) starts_[id] = start;
    return id;
  }

  // What was counted since it was taken.
  uint64_t read(uint32_t id) const {
    const auto start = starts_.find(id);
    return sum_(id) - (start == starts_.end() ? 0 : start->second);
  }

  void giveBack(uint32_t id) {
    starts_.erase(id);
    ids_.giveBack(id);
  }

 private:
  IdPool ids_;
  Sum sum_;
  std::unordered_map<uint32_t, uint64_t> starts_;  // where it is not 0
};

}  // namespace ofswitch
