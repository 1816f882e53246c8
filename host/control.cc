// SPDX-License-Identifier: BSD-3-Clause
#include "control.h"

#include <pthread.h>
#include <urcu-qsbr.h>

#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>

#include "qsbr.h"

namespace bess {
namespace {

thread_local bool is_control_thread = false;

}  // namespace

struct ControlThread::Request {
  explicit Request(const std::function<void()>* to_run) : fn(to_run) {}

  const std::function<void()>* fn;
  std::exception_ptr thrown;
  bool done = false;
  std::condition_variable done_cv;
};

ControlThread& ControlThread::Instance() {
  // Never destroyed: the thread uses it until the process ends.
  static auto* instance = new ControlThread;
  return *instance;
}

ControlThread::ControlThread() {
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setstacksize(&attr, kStackSize);
  pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  pthread_t thread;
  const int error = pthread_create(&thread, &attr, Main, this);
  pthread_attr_destroy(&attr);
  if (error != 0) {
    throw std::runtime_error(std::string("cannot start the command thread: ") +
                             strerror(error));
  }
  pthread_setname_np(thread, "command");
}

void* ControlThread::Main(void* self) {
  is_control_thread = true;
  rcu_register_thread();
  rcu_thread_offline();
  static_cast<ControlThread*>(self)->Serve();
  return nullptr;
}

void ControlThread::Serve() {
  std::unique_lock lock(mutex_);
  for (;;) {
    wake_.wait(lock, [this] { return !requests_.empty(); });
    Request* request = requests_.front();
    requests_.pop_front();
    lock.unlock();

    rcu_thread_online();
    try {
      (*request->fn)();
    } catch (...) {
      request->thrown = std::current_exception();
    }
    rcu_thread_offline();

    lock.lock();
    request->done = true;
    // Under the lock: the request is gone as soon as its owner has seen it.
    request->done_cv.notify_one();
  }
}

void ControlThread::Run(const std::function<void()>& fn) {
  if (IsCurrent()) {
    fn();
    return;
  }
  // `fn` may wait for a grace period.
  const QsbrOffline offline;
  Request request(&fn);
  {
    std::unique_lock lock(mutex_);
    requests_.push_back(&request);
    wake_.notify_one();
    request.done_cv.wait(lock, [&] { return request.done; });
  }
  if (request.thrown != nullptr) {
    std::rethrow_exception(request.thrown);
  }
}

bool ControlThread::IsCurrent() const { return is_control_thread; }

}  // namespace bess
