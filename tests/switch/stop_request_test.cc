// SPDX-License-Identifier: BSD-3-Clause
#include "switch/commands/stop_request.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <system_error>
#include <thread>

#include "tests/captures/capture_files.h"
#include "tests/support/few_descriptors.h"
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

// Signals as they were, whatever a StopRequest has blocked.
class SignalMask {
 public:
  SignalMask() { pthread_sigmask(SIG_SETMASK, nullptr, &before_); }
  ~SignalMask() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  SignalMask(const SignalMask&) = delete;
  SignalMask& operator=(const SignalMask&) = delete;

 private:
  sigset_t before_;
};

// One for signals, one for its own end.
TEST(StopRequest, TellsWhatItLacksDescriptorsFor) {
  const SignalMask mask;
  for (const rlim_t count : {0, 1}) {
    const openflow_test::FewDescriptors few(count);
    try {
      const StopRequest stop;
      ADD_FAILURE() << "with " << count;
    } catch (const std::system_error& error) {
      EXPECT_STREQ(error.what(),
                   "cannot wait for signals: Too many open files");
    }
    const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(fd >= 0, count == 1) << "it keeps none";
    if (fd >= 0) close(fd);
  }
  const openflow_test::FewDescriptors enough(2);
  EXPECT_NO_THROW(StopRequest());
}

}  // namespace
}  // namespace ofswitch
