// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "task.h"

namespace bess::internal {

// The thread of one worker. Everything but Main is called on the command
// thread, and the list of tasks changes only while the worker is paused.
// No two of them share a cache line: each is written in every round.
class alignas(64) WorkerThread {
 public:
  // Starts it paused, or throws std::runtime_error.
  WorkerThread(int wid, int core);
  // Waits for its current task run and ends it.
  ~WorkerThread();
  WorkerThread(const WorkerThread&) = delete;
  WorkerThread& operator=(const WorkerThread&) = delete;

  void RequestPause();
  void WaitUntilPaused();
  void Resume();

  std::vector<Task*>& tasks() { return tasks_; }

  // Any thread.
  uint64_t runs() const { return runs_.load(std::memory_order_relaxed); }

 private:
  enum class Wish { kPause, kRun, kQuit };

  void Main();
  std::string SetUp();
  void WaitForWork();
  bool RunRound();
  void Request(Wish wish);

  const int wid_;
  const int core_;

  // What the command thread wants; changed under the mutex, read without it
  // between task runs.
  std::atomic<Wish> wish_ = Wish::kPause;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool started_ = false;
  bool paused_ = false;
  std::string start_error_;

  Context context_;
  std::vector<Task*> tasks_;
  std::atomic<uint64_t> runs_ = 0;
  std::thread thread_;
};

// See Worker::SetLongestIdleSleep.
extern std::atomic<std::chrono::microseconds> longest_idle_sleep;

// The worker at that index, or null. For the command thread.
WorkerThread* GetWorkerThread(int wid);

}  // namespace bess::internal
