// SPDX-License-Identifier: BSD-3-Clause
#include "inline_worker.h"

#include <rte_errno.h>
#include <rte_lcore.h>
#include <urcu-qsbr.h>

#include <mutex>
#include <stdexcept>
#include <string>

#include "internal/worker_pauser.h"

namespace bess {
namespace {

using internal::worker_states;
using internal::WorkerState;

// While it lives, the thread is in the middle of a task run.
class RunScope {
 public:
  explicit RunScope(int wid) : wid_(wid) {
    worker_states[wid_] = WorkerState::kInlineRunning;
    while (internal::graph_changing) [[unlikely]] {
        worker_states[wid_] = WorkerState::kInlineIdle;
        { const std::lock_guard until_changed(internal::graph_mutex); }
        worker_states[wid_] = WorkerState::kInlineRunning;
      }
    rcu_thread_online();
  }
  ~RunScope() {
    rcu_thread_offline();
    worker_states[wid_] = WorkerState::kInlineIdle;
  }

 private:
  int wid_;
};

}  // namespace

InlineWorker::InlineWorker(int wid) : lcore_here_(false) {
  if (wid < 0 || wid >= Worker::kMaxWorkers) {
    throw std::runtime_error("worker " + std::to_string(wid) +
                             ": must be below " +
                             std::to_string(Worker::kMaxWorkers));
  }
  if (rte_lcore_id() == LCORE_ID_ANY) {
    if (rte_thread_register() != 0) {
      throw std::runtime_error(std::string("DPDK has no lcore left: ") +
                               rte_strerror(rte_errno));
    }
    lcore_here_ = true;
  }
  WorkerState none = WorkerState::kNone;
  if (!worker_states[wid].compare_exchange_strong(none,
                                                  WorkerState::kInlineIdle)) {
    if (lcore_here_) {
      rte_thread_unregister();
    }
    throw std::runtime_error("worker " + std::to_string(wid) +
                             " exists already");
  }
  context_.wid = wid;
}

InlineWorker::~InlineWorker() {
  worker_states[context_.wid] = WorkerState::kNone;
  if (lcore_here_) {
    rte_thread_unregister();
  }
}

task_result InlineWorker::Run(Task* task) {
  const RunScope scope(context_.wid);
  return task->RunOnce(&context_);
}

void InlineWorker::Run(Task* task, IGate* igate, PacketBatch* batch) {
  const RunScope scope(context_.wid);
  task->StartRun(&context_);
  task->AddToRun(igate, batch);
  task->RunPending(&context_);
}

}  // namespace bess
