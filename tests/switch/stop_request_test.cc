// SPDX-License-Identifier: BSD-3-Clause
#include "switch/commands/stop_request.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include "tests/captures/capture_files.h"
#include "tests/support/time_limit.h"

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

// The path is for another switch then, as if this one had ended by itself.
TEST(StopRequest, RemovesTheFileOfAProcessThatDoesNotEndItself) {
  const openflow_test::ScratchDir dir;
  const std::string file = dir / "control.sock";
  openflow_test::writeFile(file, "");
  const pid_t child = fork();
  if (child == 0) {
    StopRequest stop;
    stop.setFile(file);
    kill(getpid(), SIGTERM);
    std::this_thread::sleep_for(openflow_test::timeLimit(20s));
    _exit(1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_FALSE(std::filesystem::exists(file));
}

}  // namespace
}  // namespace ofswitch
