// SPDX-License-Identifier: BSD-3-Clause
#include "internal/worker_thread.h"

#include <pthread.h>
#include <rte_errno.h>
#include <rte_lcore.h>
#include <sys/prctl.h>
#include <urcu-qsbr.h>

#include <chrono>
#include <fstream>
#include <stdexcept>
#include <string>

#include "internal/idle_backoff.h"
#include "qsbr.h"

namespace bess::internal {
namespace {

// How late a sleeping worker may wake up, in nanoseconds. The kernel's usual 50
// microseconds would make every short sleep a long one.
constexpr unsigned long kTimerSlack = 1000;

// As the kernel writes it: 0-3,8.
std::string AllowedCores() {
  std::ifstream status("/proc/thread-self/status");
  std::string word;
  while (status >> word && word != "Cpus_allowed_list:") {
  }
  status >> word;
  return status ? word : "cores that the kernel does not tell";
}

}  // namespace

std::atomic<std::chrono::microseconds> longest_idle_sleep =
    Worker::kDefaultIdleSleep;

WorkerThread::WorkerThread(int wid, int core) : wid_(wid), core_(core) {
  context_.wid = wid;
  thread_ = std::thread([this] { Main(); });
  {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return started_; });
  }
  if (!start_error_.empty()) {
    thread_.join();
    throw std::runtime_error(start_error_);
  }
}

WorkerThread::~WorkerThread() {
  if (thread_.joinable()) {
    Request(Wish::kQuit);
    thread_.join();
  }
}

void WorkerThread::Request(Wish wish) {
  {
    const std::lock_guard lock(mutex_);
    // Pairs with the load between task runs in Main.
    wish_.store(wish, std::memory_order_release);
    if (wish == Wish::kRun) {
      paused_ = false;
    }
  }
  changed_.notify_all();
}

void WorkerThread::RequestPause() { Request(Wish::kPause); }
void WorkerThread::Resume() { Request(Wish::kRun); }

void WorkerThread::WaitUntilPaused() {
  const QsbrOffline offline;
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return paused_; });
}

std::string WorkerThread::SetUp() {
  pthread_setname_np(pthread_self(), ("worker" + std::to_string(wid_)).c_str());
  prctl(PR_SET_TIMERSLACK, kTimerSlack);
  const std::string who = "worker " + std::to_string(wid_);
  if (core_ != Worker::kNoCore) {
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    if (core_ < 0 || core_ >= CPU_SETSIZE) {
      return who + ": there is no core " + std::to_string(core_);
    }
    CPU_SET(core_, &cpus);
    if (const int error =
            pthread_setaffinity_np(pthread_self(), sizeof(cpus), &cpus)) {
      return who + ": cannot be pinned to core " + std::to_string(core_) +
             ": " + rte_strerror(error) + "; it may run on " + AllowedCores();
    }
  }
  if (rte_thread_register() != 0) {
    return who + ": DPDK has no lcore for it: " + rte_strerror(rte_errno);
  }
  return "";
}

void WorkerThread::Main() {
  std::string error = SetUp();
  const bool usable = error.empty();
  {
    const std::lock_guard lock(mutex_);
    start_error_ = std::move(error);
    started_ = true;
    // Under the lock: on failure the object goes as soon as this is seen.
    changed_.notify_all();
  }
  if (!usable) {
    return;
  }
  const QsbrReader reader;
  IdleBackoff backoff;
  for (;;) {
    if (wish_.load(std::memory_order_acquire) != Wish::kRun) {
      WaitForWork();
      if (wish_.load(std::memory_order_acquire) == Wish::kQuit) {
        break;
      }
      continue;
    }
    const bool worked = RunRound();
    const auto sleep = backoff.AfterRound(
        worked, std::chrono::nanoseconds(context_.current_ns),
        longest_idle_sleep.load(std::memory_order_relaxed));
    if (sleep.count() > 0) {
      const QsbrOffline offline;
      std::this_thread::sleep_for(sleep);
    }
  }
  rte_thread_unregister();
}

// Until the worker is to run and has tasks. Those change only while it is here.
void WorkerThread::WaitForWork() {
  const QsbrOffline offline;
  std::unique_lock lock(mutex_);
  while (wish_.load(std::memory_order_relaxed) != Wish::kQuit) {
    if (wish_.load(std::memory_order_relaxed) == Wish::kPause) {
      paused_ = true;
      changed_.notify_all();
    } else if (!tasks_.empty()) {
      return;
    }
    changed_.wait(lock);
  }
}

bool WorkerThread::RunRound() {
  bool worked = false;
  for (Task* task : tasks_) {
    worked |= !task->RunOnce(&context_).block;
    runs_.store(runs_.load(std::memory_order_relaxed) + 1,
                std::memory_order_relaxed);
    rcu_quiescent_state();
  }
  return worked;
}

}  // namespace bess::internal
