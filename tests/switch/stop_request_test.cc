// SPDX-License-Identifier: BSD-3-Clause
#include "switch/commands/stop_request.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

namespace ofswitch {
namespace {

using namespace std::chrono_literals;

// The exit status of a process whose StopRequest goes, because something has
// failed, at about the moment at which the signal comes.
int statusOfAFailure(std::chrono::microseconds between) {
  const pid_t child = fork();
  if (child == 0) {
    {
      const StopRequest stop;
      kill(getpid(), SIGTERM);
      std::this_thread::sleep_for(between);
    }
    _exit(1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

TEST(StopRequest, DoesNotHoldUpAFailureThatEndsTheProcess) {
  constexpr int kRounds = 30;
  for (int round = 0; round < kRounds; round++) {
    ASSERT_EQ(statusOfAFailure(round * 10us), 1) << "round " << round;
  }
}

}  // namespace
}  // namespace ofswitch
