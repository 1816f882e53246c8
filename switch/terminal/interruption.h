// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <signal.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace ofswitch {

// Ctrl-C and SIGTERM, for a command that goes on until it is told to stop and
// then ends well. One at a time, made before any other thread. Where that takes
// more than a second, one more signal ends the process as it would without
// this.
class Interruption {
 public:
  Interruption();
  ~Interruption();
  Interruption(const Interruption&) = delete;
  Interruption& operator=(const Interruption&) = delete;

  bool happened() const;

  // Waits; answers early when the signal comes, and whether it has come.
  bool waitFor(std::chrono::nanoseconds time);

  // Calls `stop` once, on another thread, when the signal comes or at once if
  // it has come; not any more after the next call. Null for nothing.
  void calls(std::function<void()> stop);

 private:
  void watch();
  void takePending() const;

  sigset_t signals_;
  sigset_t before_;
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  bool happened_ = false;
  bool ending_ = false;
  std::function<void()> stop_;
  std::thread thread_;
};

}  // namespace ofswitch
