// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdint>
#include <unordered_set>

namespace ofswitch {

// Hands out flow identifiers and counter indexes of the running switch. Both
// start at 1: flows without counters of their own leave their indexes unset,
// which is 0. Identifiers are unique over all tables, so that one number
// names a flow in every report.
class IdAllocator {
 public:
  uint32_t takeFlowId() { return take(&nextFlowId_, reservedFlowIds_); }
  uint32_t takeCounter() { return take(&nextCounter_, reservedCounters_); }

  // Numbers that someone else chose and that must not be handed out.
  void reserveFlowId(uint32_t id) { reservedFlowIds_.insert(id); }
  void reserveCounter(uint32_t id) {
    reservedCounters_.insert(id);
    if (id >= numCounters_) numCounters_ = id + 1;
  }

  // One more than the highest counter index in use.
  uint32_t numCounters() const {
    return nextCounter_ > numCounters_ ? nextCounter_ : numCounters_;
  }

 private:
  static uint32_t take(uint32_t* next,
                       const std::unordered_set<uint32_t>& reserved) {
    while (reserved.contains(*next)) ++*next;
    return (*next)++;
  }

  uint32_t nextFlowId_ = 1;
  uint32_t nextCounter_ = 1;
  uint32_t numCounters_ = 1;
  std::unordered_set<uint32_t> reservedFlowIds_;
  std::unordered_set<uint32_t> reservedCounters_;
};

}  // namespace ofswitch
