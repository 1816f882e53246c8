// SPDX-License-Identifier: BSD-3-Clause
//
// Signals to a command that waits. Each test is a process of its own, with no
// thread but those that are meant to get them.
#include "switch/terminal/interruption.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "tests/support/time_limit.h"

namespace ofswitch {
namespace {

using namespace std::chrono_literals;
using testing::ExitedWithCode;
using testing::KilledBySignal;

class InterruptionDeathTest : public testing::Test {
 protected:
  InterruptionDeathTest() {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    signal(SIGINT, SIG_DFL);  // shells ignore it for what they put behind them
  }

  static void interrupt(const Interruption& interruption) {
    kill(getpid(), SIGINT);
    while (!interruption.happened()) std::this_thread::sleep_for(1ms);
  }
};

TEST_F(InterruptionDeathTest, EndsACallThatBeginsAfterIt) {
  const auto run = [] {
    Interruption interruption;
    interrupt(interruption);
    interruption.calls([] { _exit(7); });
    _exit(1);
  };
  EXPECT_EXIT(run(), ExitedWithCode(7), "");
}

TEST_F(InterruptionDeathTest, ComesTwiceFromSomePrograms) {
  const auto run = [] {
    {
      Interruption interruption;
      interrupt(interruption);
      kill(getpid(), SIGINT);
      kill(getpid(), SIGTERM);
    }
    _exit(7);
  };
  EXPECT_EXIT(run(), ExitedWithCode(7), "");
}

TEST_F(InterruptionDeathTest, EndsTheProcessWhenThatDoesNotEndItself) {
  const auto run = [] {
    Interruption interruption;
    interrupt(interruption);
    const auto end =
        std::chrono::steady_clock::now() + openflow_test::timeLimit(5s);
    while (std::chrono::steady_clock::now() < end) {
      kill(getpid(), SIGINT);
      std::this_thread::sleep_for(20ms);
    }
    _exit(1);
  };
  EXPECT_EXIT(run(), KilledBySignal(SIGINT), "");
}

// It was not there yet when the first second was over.
TEST_F(InterruptionDeathTest, EndsTheProcessHoweverLateItComesAgain) {
  const auto run = [] {
    Interruption interruption;
    interrupt(interruption);
    std::this_thread::sleep_for(2s);
    kill(getpid(), SIGTERM);
    std::this_thread::sleep_for(openflow_test::timeLimit(5s));
    _exit(1);
  };
  EXPECT_EXIT(run(), KilledBySignal(SIGTERM), "");
}

std::atomic<int> handled = 0;

// A process may have an answer of its own to a signal that comes again.
TEST_F(InterruptionDeathTest, LeavesWhatComesAgainToTheProcess) {
  const auto run = [] {
    signal(SIGINT, [](int) { handled++; });
    Interruption interruption;
    interrupt(interruption);
    const auto end =
        std::chrono::steady_clock::now() + openflow_test::timeLimit(10s);
    while (handled == 0 && std::chrono::steady_clock::now() < end) {
      kill(getpid(), SIGINT);
      std::this_thread::sleep_for(20ms);
    }
    _exit(handled > 0 && interruption.happened() ? 7 : 1);
  };
  EXPECT_EXIT(run(), ExitedWithCode(7), "");
}

TEST_F(InterruptionDeathTest, HasItsUsualEffectAfterwards) {
  const auto run = [] {
    { const Interruption interruption; }
    kill(getpid(), SIGTERM);
    std::this_thread::sleep_for(openflow_test::timeLimit(5s));
    _exit(1);
  };
  EXPECT_EXIT(run(), KilledBySignal(SIGTERM), "");
}

}  // namespace
}  // namespace ofswitch
