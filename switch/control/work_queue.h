// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace ofswitch {

// A few threads that run what they are given, first come, first served. Any
// thread may add. What is added must not throw.
class WorkQueue {
 public:
  explicit WorkQueue(unsigned threads);
  // Runs what still waits, then ends the threads.
  ~WorkQueue();
  WorkQueue(const WorkQueue&) = delete;
  WorkQueue& operator=(const WorkQueue&) = delete;

  void add(std::function<void()> work);

 private:
  void serve();

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> waiting_;
  bool ending_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace ofswitch
