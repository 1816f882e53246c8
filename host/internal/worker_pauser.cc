// SPDX-License-Identifier: BSD-3-Clause
#include "internal/worker_pauser.h"

#include <glog/logging.h>

#include <thread>

#include "internal/worker_thread.h"
#include "module.h"
#include "qsbr.h"

namespace bess::internal {
namespace {

void EndChange() {
  graph_changing = false;
  graph_mutex.unlock();
}

template <typename F>
void ForEachModule(F fn) {
  for (const auto& [name, builder] : ModuleBuilder::all_module_builders()) {
    for (Module* module : builder.instances()) {
      fn(module);
    }
  }
}

}  // namespace

AtomicWorkerState worker_states[Worker::kMaxWorkers];
std::atomic<bool> graph_changing;
std::mutex graph_mutex;
int WorkerPauser::depth_ = 0;

std::vector<int> PauseRunning() {
  std::vector<int> running;
  for (int wid = 0; wid < Worker::kMaxWorkers; wid++) {
    if (worker_states[wid] == WorkerState::kRunning) {
      GetWorkerThread(wid)->RequestPause();
      running.push_back(wid);
    }
  }
  for (int wid : running) {
    GetWorkerThread(wid)->WaitUntilPaused();
    worker_states[wid] = WorkerState::kPaused;
  }
  return running;
}

WorkerPauser::WorkerPauser() {
  if (depth_++ > 0) {
    return;
  }
  paused_ = true;
  ran_ = PauseRunning();
  const QsbrOffline offline;
  graph_mutex.lock();
  graph_changing = true;
  for (const AtomicWorkerState& state : worker_states) {
    while (state == WorkerState::kInlineRunning) {
      std::this_thread::yield();
    }
  }
}

WorkerPauser::~WorkerPauser() {
  if (const std::string error = Resume(); !error.empty()) {
    LOG(ERROR) << "workers stay paused: " << error;
    EndChange();
  }
  depth_--;
}

std::string WorkerPauser::Resume() {
  if (!paused_) {
    return "";
  }
  UpdateActiveWorkers();
  if (!ran_.empty()) {
    if (std::string error = CheckConstraints(); !error.empty()) {
      return error;
    }
    NotifyPreResume();
  }
  paused_ = false;
  EndChange();
  for (int wid : ran_) {
    if (WorkerThread* thread = GetWorkerThread(wid)) {
      worker_states[wid] = WorkerState::kRunning;
      thread->Resume();
    }
  }
  return "";
}

void UpdateActiveWorkers() {
  ForEachModule([](Module* module) { module->ResetActiveWorkers(); });
  ForEachModule([](Module* module) {
    for (const auto& task : module->tasks()) {
      if (task->wid() >= 0) {
        module->AddActiveWorker(task->wid(), task.get());
      }
    }
  });
}

std::string CheckConstraints() {
  std::string error;
  ForEachModule([&](Module* module) {
    if (module->CheckModuleConstraints() == CHECK_FATAL_ERROR) {
      error += (error.empty() ? "" : "; ");
      error += "module '" + module->name() + "' is run by " +
               std::to_string(module->num_active_workers()) +
               " workers but allows at most " +
               std::to_string(module->max_allowed_workers());
    }
  });
  return error;
}

void NotifyPreResume() {
  ForEachModule([](Module* module) { module->OnEvent(Event::PreResume); });
}

}  // namespace bess::internal
