// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <algorithm>
#include <chrono>

namespace ofswitch {

// When something that fails is tried again: at once, then after a second, and
// then after twice as long each time, a minute at most.
class Retry {
 public:
  using Time = std::chrono::steady_clock::time_point;

  bool isDue(Time now) const { return next_ <= now; }

  void failed(Time now) {
    using std::chrono::seconds;
    next_ = now + wait_;
    wait_ = std::clamp(2 * wait_, seconds(1), seconds(60));
  }

 private:
  Time next_ = Time::min();
  std::chrono::seconds wait_{0};
};

}  // namespace ofswitch
