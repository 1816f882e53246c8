// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

namespace ofswitch {

// Calls a function now and then, on a thread of its own.
class Ticker {
 public:
  Ticker(std::chrono::milliseconds period, std::function<void()> tick)
      : thread_([this, period, tick = std::move(tick)] {
          std::unique_lock lock(mutex_);
          while (!wake_.wait_for(lock, period, [this] { return ending_; })) {
            lock.unlock();
            tick();
            lock.lock();
          }
        }) {}

  ~Ticker() {
    {
      const std::lock_guard lock(mutex_);
      ending_ = true;
    }
    wake_.notify_all();
    thread_.join();
  }
  Ticker(const Ticker&) = delete;
  Ticker& operator=(const Ticker&) = delete;

 private:
  std::mutex mutex_;
  std::condition_variable wake_;
  bool ending_ = false;
  std::thread thread_;  // last: it uses the others
};

}  // namespace ofswitch
