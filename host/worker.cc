// SPDX-License-Identifier: BSD-3-Clause
#include "worker.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>

#include "control.h"
#include "eal.h"
#include "internal/worker_pauser.h"
#include "internal/worker_thread.h"
#include "module.h"

using bess::ControlThread;
using bess::internal::GetWorkerThread;
using bess::internal::worker_states;
using bess::internal::WorkerPauser;
using bess::internal::WorkerState;
using bess::internal::WorkerThread;

namespace {

// Changed on the command thread; the mutex is for the readers of counters.
struct Registry {
  std::mutex mutex;
  std::array<std::unique_ptr<WorkerThread>, Worker::kMaxWorkers> threads;
};

// Never destroyed: a thread that still runs at exit must find it.
Registry& Workers() {
  static auto* registry = new Registry;
  return *registry;
}

std::string OnControlThread(const std::function<std::string()>& fn) {
  std::string error;
  ControlThread::Instance().Run([&] { error = fn(); });
  return error;
}

bool InRange(int wid) { return wid >= 0 && wid < Worker::kMaxWorkers; }

std::string NoSuchWorker(int wid) {
  return "there is no worker " + std::to_string(wid);
}

// While workers are paused.
void Attach(Task* task, int wid) {
  if (InRange(task->wid())) {
    if (WorkerThread* thread = GetWorkerThread(task->wid())) {
      std::erase(thread->tasks(), task);
    }
  }
  task->set_wid(wid);
  if (InRange(wid)) {
    if (WorkerThread* thread = GetWorkerThread(wid)) {
      thread->tasks().push_back(task);
    }
  }
}

}  // namespace

WorkerThread* bess::internal::GetWorkerThread(int wid) {
  return Workers().threads[wid].get();
}

std::string Worker::Add(int wid, int core) {
  return OnControlThread([=]() -> std::string {
    if (!InRange(wid)) {
      return "worker " + std::to_string(wid) + ": must be below " +
             std::to_string(kMaxWorkers);
    }
    if (!bess::EalReady()) {
      return "worker " + std::to_string(wid) + ": DPDK is not started";
    }
    WorkerState none = WorkerState::kNone;
    if (!worker_states[wid].compare_exchange_strong(none,
                                                    WorkerState::kPaused)) {
      return "worker " + std::to_string(wid) + " exists already";
    }
    try {
      auto thread = std::make_unique<WorkerThread>(wid, core);
      const std::lock_guard lock(Workers().mutex);
      Workers().threads[wid] = std::move(thread);
    } catch (const std::runtime_error& error) {
      worker_states[wid] = WorkerState::kNone;
      return error.what();
    }
    return "";
  });
}

std::string Worker::AttachTasks(Module* module, int wid) {
  return OnControlThread([=]() -> std::string {
    if (!Exists(wid)) {
      return NoSuchWorker(wid);
    }
    if (module->tasks().empty()) {
      return "module '" + module->name() + "' has no task";
    }
    WorkerPauser pauser;
    std::vector<int> before;
    for (const auto& task : module->tasks()) {
      before.push_back(task->wid());
      Attach(task.get(), wid);
    }
    const std::string error = pauser.Resume();
    if (!error.empty()) {
      for (size_t i = 0; i < before.size(); i++) {
        Attach(module->tasks()[i].get(), before[i]);
      }
    }
    return error;
  });
}

void Worker::DetachTasks(Module* module) {
  ControlThread::Instance().Run([=] {
    const WorkerPauser pauser;
    for (const auto& task : module->tasks()) {
      Attach(task.get(), -1);
      task->FreePending();
    }
  });
}

void Worker::PauseAll() {
  ControlThread::Instance().Run([] { bess::internal::PauseRunning(); });
}

std::string Worker::ResumeAll() {
  return OnControlThread([]() -> std::string {
    bess::internal::UpdateActiveWorkers();
    if (std::string error = bess::internal::CheckConstraints();
        !error.empty()) {
      return error;
    }
    bess::internal::NotifyPreResume();
    for (int wid = 0; wid < kMaxWorkers; wid++) {
      if (worker_states[wid] == WorkerState::kPaused) {
        worker_states[wid] = WorkerState::kRunning;
        GetWorkerThread(wid)->Resume();
      }
    }
    return "";
  });
}

std::string Worker::Stop(int wid) {
  return OnControlThread([=]() -> std::string {
    if (!InRange(wid) || GetWorkerThread(wid) == nullptr) {
      return NoSuchWorker(wid);
    }
    const WorkerPauser pauser;
    const std::vector<Task*> tasks = GetWorkerThread(wid)->tasks();
    for (Task* task : tasks) {
      Attach(task, -1);
      task->FreePending();
    }
    const std::lock_guard lock(Workers().mutex);
    Workers().threads[wid].reset();
    worker_states[wid] = WorkerState::kNone;
    return "";
  });
}

void Worker::StopAll() {
  for (int wid = 0; wid < kMaxWorkers; wid++) {
    Stop(wid);
  }
}

bool Worker::IsRunning(int wid) {
  if (!InRange(wid)) {
    return false;
  }
  const WorkerState state = worker_states[wid];
  return state == WorkerState::kRunning || state == WorkerState::kInlineRunning;
}

bool Worker::Exists(int wid) {
  return InRange(wid) && worker_states[wid] != WorkerState::kNone;
}

std::vector<int> Worker::List() {
  std::vector<int> wids;
  for (int wid = 0; wid < kMaxWorkers; wid++) {
    if (Exists(wid)) {
      wids.push_back(wid);
    }
  }
  return wids;
}

void Worker::SetLongestIdleSleep(std::chrono::microseconds longest) {
  bess::internal::longest_idle_sleep.store(longest, std::memory_order_relaxed);
}

uint64_t Worker::Runs(int wid) {
  if (!InRange(wid)) {
    return 0;
  }
  const std::lock_guard lock(Workers().mutex);
  const WorkerThread* thread = GetWorkerThread(wid);
  return thread != nullptr ? thread->runs() : 0;
}
