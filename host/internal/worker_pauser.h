// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <atomic>
#include <mutex>
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

// The state of one worker index, on a line of its own: an inline worker writes
// it in every task run.
struct alignas(64) AtomicWorkerState : std::atomic<WorkerState> {
  using std::atomic<WorkerState>::operator=;
};

// The state of each worker index, for any thread to read.
extern AtomicWorkerState worker_states[Worker::kMaxWorkers];

// How inline task runs and changes of the graph keep apart. A run announces
// itself in its worker's state and then looks at the flag; a change sets the
// flag and then looks at the states: one of them sees the other. The mutex is
// held throughout a change, for runs to wait for its end.
extern std::atomic<bool> graph_changing;
extern std::mutex graph_mutex;

// Pauses the workers that run, waits until they do, and answers their numbers.
std::vector<int> PauseRunning();

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
