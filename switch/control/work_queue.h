// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace ofswitch {

// A few threads that run what they are given, first come, first served. Any
// thread may add. What is added must not throw.
//
// Who adds work takes one of `places` first and keeps it as long as it comes
// back, so that neither what waits nor those who come back can grow beyond
// measure.
class WorkQueue {
 public:
  WorkQueue(unsigned threads, size_t places);
  // Runs what still waits, then ends the threads.
  ~WorkQueue();
  WorkQueue(const WorkQueue&) = delete;
  WorkQueue& operator=(const WorkQueue&) = delete;

  // False when all are taken.
  bool takePlace();
  void givePlaceBack();

  void add(std::function<void()> work);

 private:
  void serve();

  std::mutex mutex_;
  size_t places_;  // free ones
  std::condition_variable wake_;
  std::deque<std::function<void()>> waiting_;
  bool ending_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace ofswitch
