// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <atomic>
#include <shared_mutex>
#include <string>
#include <vector>

#include "worker.h"

namespace bess::internal {

enum class WorkerState {
  kNone,
  kPaused,
  kRunning,
  kInlineIdle,     // the index is an InlineWorker's
  kInlineRunning,  // which is in the middle of a task run
};

// The state of each worker index, for any thread to read.
extern std::atomic<WorkerState> worker_states[Worker::kMaxWorkers];

// Held shared by inline task runs, exclusively while the graph changes.
extern std::shared_mutex graph_mutex;

// While it lives no worker runs, so that gates and tasks may change. On the
// command thread only; pausers nest, and only the outermost one acts.
class WorkerPauser {
 public:
  WorkerPauser();
  // Resumes, if Resume has not.
  ~WorkerPauser();
  WorkerPauser(const WorkerPauser&) = delete;
  WorkerPauser& operator=(const WorkerPauser&) = delete;

  // Works out anew which workers run which modules, and lets those that ran
  // before run again. When a module's constraints forbid it, answers why and
  // leaves them paused: undo the change and try again.
  std::string Resume();

 private:
  static int depth_;

  bool paused_ = false;
  std::vector<int> ran_;  // workers that this pauser paused
};

// Tells every module which workers run it, from the tasks' workers.
void UpdateActiveWorkers();

// Why workers must not be started, or empty.
std::string CheckConstraints();

// Tells all modules of Event::PreResume.
void NotifyPreResume();

}  // namespace bess::internal
