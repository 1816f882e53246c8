// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "switch/control/stream_call.h"
#include "switch/live/live_switch.h"

namespace ofswitch {

// Wakes who follows the log when there is something new. Writers of the log do
// not tell of it: they must not wait for anybody.
class LogFollowers {
 public:
  // Where one follower will go on reading.
  using Position = std::shared_ptr<std::atomic<uint64_t>>;

  explicit LogFollowers(const LiveSwitch* live);
  ~LogFollowers();
  LogFollowers(const LogFollowers&) = delete;
  LogFollowers& operator=(const LogFollowers&) = delete;

  // Until the call is gone.
  void add(std::weak_ptr<StreamCall> call, Position position);

 private:
  struct Follower {
    std::weak_ptr<StreamCall> call;
    Position position;
  };

  void watch();
  void wakeBehind(uint64_t end);

  const LiveSwitch* const live_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::vector<Follower> followers_;
  bool ending_ = false;
  std::thread thread_;
};

}  // namespace ofswitch
