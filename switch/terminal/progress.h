// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace ofswitch {

// A bar on standard error for work that takes more than two seconds; nothing
// for less, and nothing when standard error is no terminal.
class Progress {
 public:
  explicit Progress(std::string what);
  ~Progress();  // wipes the bar
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // May be called often. A total of 0 means that nobody knows.
  void show(uint64_t done, uint64_t total);

 private:
  using Clock = std::chrono::steady_clock;

  std::string what_;
  bool terminal_;
  bool shown_ = false;
  Clock::time_point start_;
  Clock::time_point last_;
};

}  // namespace ofswitch
