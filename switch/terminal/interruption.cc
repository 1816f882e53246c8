// SPDX-License-Identifier: BSD-3-Clause
#include "switch/terminal/interruption.h"

#include <pthread.h>

#include <ctime>
#include <utility>

namespace ofswitch {
namespace {

// Some programs send the signal to a command and to its group, so that it
// comes twice.
constexpr std::chrono::seconds kPatience{1};

}  // namespace

Interruption::Interruption() {
  sigemptyset(&signals_);
  sigaddset(&signals_, SIGINT);
  sigaddset(&signals_, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals_, &before_);
  thread_ = std::thread([this] { watch(); });
}

Interruption::~Interruption() {
  {
    const std::lock_guard lock(mutex_);
    ending_ = true;
    // Wakes it if it still waits; if it does not, it has let signals through
    // and must not get one.
    if (!happened_) pthread_kill(thread_.native_handle(), SIGINT);
  }
  wake_.notify_all();
  thread_.join();
  if (happened_) takePending();
  pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

// One that came a second time has had its effect already: it must not end a
// process that ends by itself.
void Interruption::takePending() const {
  const timespec none = {};
  while (sigtimedwait(&signals_, nullptr, &none) > 0) {
  }
}

bool Interruption::happened() const {
  const std::lock_guard lock(mutex_);
  return happened_;
}

bool Interruption::waitFor(std::chrono::nanoseconds time) {
  std::unique_lock lock(mutex_);
  return wake_.wait_for(lock, time, [this] { return happened_; });
}

void Interruption::calls(std::function<void()> stop) {
  const std::lock_guard lock(mutex_);
  stop_ = std::move(stop);
  if (happened_ && stop_) stop_();
}

void Interruption::watch() {
  int signal = 0;
  sigwait(&signals_, &signal);
  std::unique_lock lock(mutex_);
  if (ending_) return;
  happened_ = true;
  if (stop_) stop_();
  wake_.notify_all();
  const auto isEnding = [this] { return ending_; };
  if (wake_.wait_for(lock, kPatience, isEnding)) return;
  pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  wake_.wait(lock, isEnding);
}

}  // namespace ofswitch
