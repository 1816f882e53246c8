// SPDX-License-Identifier: BSD-3-Clause
#include "switch/commands/stop_request.h"

#include <fmt/core.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <mutex>
#include <system_error>

#include "switch/terminal/standard_error.h"

namespace ofswitch {
namespace {

constexpr auto kStopTime = std::chrono::milliseconds(1800);

// Whether it was started so that it goes on without its terminal; see nohup(1).
bool outlivesTerminal() {
  struct sigaction action {};
  return sigaction(SIGHUP, nullptr, &action) == 0 &&
         action.sa_handler == SIG_IGN;
}

sigset_t blockedSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  if (!outlivesTerminal()) sigaddset(&signals, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return signals;
}

// Open, or there is no way to stop the switch, which must not start then.
class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {
    if (fd < 0) {
      throw std::system_error(errno, std::system_category(),
                              "cannot wait for signals");
    }
  }
  ~Descriptor() { close(fd_); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const { return fd_; }

 private:
  const int fd_;
};

}  // namespace

// Outlives who made it once the signal has come: the thread keeps the time
// until the process has ended.
struct StopRequest::State {
  // Left for one of the others, once, by the thread or by who made it.
  enum class Phase { kWaiting, kMade, kGivenUp };

  // Whether the phase is `next` from now on.
  bool become(Phase next) {
    Phase waiting = Phase::kWaiting;
    return phase.compare_exchange_strong(waiting, next);
  }

  const sigset_t signals = blockedSignals();
  const Descriptor signal{signalfd(-1, &signals, SFD_CLOEXEC)};
  const Descriptor given_up{eventfd(0, EFD_CLOEXEC)};
  std::atomic<Phase> phase = Phase::kWaiting;
  std::atomic<const char*> work = "";
  std::mutex mutex;
  std::string file;
};

StopRequest::StopRequest()
    : state_(std::make_shared<State>()),
      thread_([state = state_] { serve(state.get()); }) {}

StopRequest::~StopRequest() {
  if (!state_->become(State::Phase::kGivenUp)) {
    thread_.detach();
    return;
  }
  const uint64_t one = 1;
  if (write(state_->given_up.get(), &one, sizeof(one)) < 0) std::terminate();
  thread_.join();
}

bool StopRequest::isMade() const {
  return state_->phase == State::Phase::kMade;
}

void StopRequest::wait() { state_->phase.wait(State::Phase::kWaiting); }

void StopRequest::setWork(const char* work) { state_->work = work; }

void StopRequest::setFile(const std::string& path) {
  const std::lock_guard lock(state_->mutex);
  state_->file = path;
}

void StopRequest::serve(State* state) {
  pollfd polled[] = {{state->signal.get(), POLLIN, 0},
                     {state->given_up.get(), POLLIN, 0}};
  while (poll(polled, 2, -1) <= 0) {
  }
  if (!state->become(State::Phase::kMade)) return;
  state->phase.notify_all();
  std::this_thread::sleep_for(kStopTime);
  printError("ofswitch: stopped {}\n", state->work.load());
  const std::lock_guard lock(state->mutex);
  if (!state->file.empty()) unlink(state->file.c_str());
  _exit(0);
}

}  // namespace ofswitch
