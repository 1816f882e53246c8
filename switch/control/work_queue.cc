// SPDX-License-Identifier: BSD-3-Clause
#include "switch/control/work_queue.h"

#include <utility>

namespace ofswitch {

WorkQueue::WorkQueue(unsigned threads, size_t places) : places_(places) {
  threads_.reserve(threads);
  for (unsigned i = 0; i < threads; i++) {
    threads_.emplace_back([this] { serve(); });
  }
}

WorkQueue::~WorkQueue() {
  {
    const std::lock_guard lock(mutex_);
    ending_ = true;
  }
  wake_.notify_all();
  for (std::thread& thread : threads_) thread.join();
}

bool WorkQueue::takePlace() {
  const std::lock_guard lock(mutex_);
  if (places_ == 0) return false;
  places_--;
  return true;
}

void WorkQueue::givePlaceBack() {
  const std::lock_guard lock(mutex_);
  places_++;
}

void WorkQueue::add(std::function<void()> work) {
  {
    const std::lock_guard lock(mutex_);
    waiting_.push_back(std::move(work));
  }
  wake_.notify_one();
}

void WorkQueue::serve() {
  std::unique_lock lock(mutex_);
  while (true) {
    wake_.wait(lock, [this] { return ending_ || !waiting_.empty(); });
    if (waiting_.empty()) return;
    std::function<void()> work = std::move(waiting_.front());
    waiting_.pop_front();
    lock.unlock();
    work();
    work = nullptr;  // what it holds goes without the lock
    lock.lock();
  }
}

}  // namespace ofswitch
