// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <algorithm>
#include <chrono>

namespace bess::internal {

// How long a worker sleeps when its tasks have nothing to do: not at all until
// kAwake after the last work, then a little longer each time.
class IdleBackoff {
 public:
  static constexpr std::chrono::microseconds kAwake{100};
  static constexpr std::chrono::microseconds kFirstSleep{10};

  // After a round of all tasks: whether any had work, when the round ended, and
  // how long a sleep may be. Answers how long to sleep now.
  std::chrono::nanoseconds AfterRound(bool worked, std::chrono::nanoseconds now,
                                      std::chrono::nanoseconds longest) {
    if (worked) {
      idle_ = false;
    } else if (!idle_) {
      idle_ = true;
      idle_since_ = now;
      next_sleep_ = kFirstSleep;
    } else if (now - idle_since_ >= kAwake) {
      const std::chrono::nanoseconds sleep = std::min(next_sleep_, longest);
      next_sleep_ = std::min(2 * next_sleep_, std::max(longest, next_sleep_));
      return sleep;
    }
    return std::chrono::nanoseconds::zero();
  }

 private:
  bool idle_ = false;
  std::chrono::nanoseconds idle_since_{};
  std::chrono::nanoseconds next_sleep_{};
};

}  // namespace bess::internal
