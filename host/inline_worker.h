// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "qsbr.h"
#include "task.h"

namespace bess {

// Lets the calling thread do a worker's work, for programs that need no thread
// of their own (replaying a capture, tests): while it lives, the thread has an
// lcore identity and is a QSBR reader. It is offline except inside Run.
//
// Commands may be run from the same thread in between. Use by one thread.
class InlineWorker {
 public:
  // `wid` must not be a worker's. Throws std::runtime_error when it is, or when
  // DPDK has no lcore left.
  explicit InlineWorker(int wid = 0);
  ~InlineWorker();
  InlineWorker(const InlineWorker&) = delete;
  InlineWorker& operator=(const InlineWorker&) = delete;

  Context* context() { return &context_; }

  // One run of `task`, as a worker does it.
  task_result Run(Task* task);

  // Hands `batch` to the module behind `igate` as part of `task`, and carries
  // what comes of it to its end.
  void Run(Task* task, IGate* igate, PacketBatch* batch);

 private:
  QsbrReader reader_;
  QsbrOffline offline_;
  bool lcore_here_;
  Context context_;
};

}  // namespace bess
