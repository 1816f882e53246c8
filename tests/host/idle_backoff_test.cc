// SPDX-License-Identifier: BSD-3-Clause
#include "internal/idle_backoff.h"

#include <gtest/gtest.h>
#include <time.h>
#include <urcu-qsbr.h>

#include <thread>

#include "probe.h"

namespace {

using bess::internal::IdleBackoff;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr nanoseconds kNever{0};
constexpr microseconds kLongest{200};

TEST(IdleBackoff, StaysAwakeForAWhile) {
  IdleBackoff backoff;
  nanoseconds now{5000};
  EXPECT_EQ(backoff.AfterRound(false, now, kLongest), kNever);
  EXPECT_EQ(backoff.AfterRound(
                false, now + IdleBackoff::kAwake - nanoseconds(1), kLongest),
            kNever);
  EXPECT_EQ(backoff.AfterRound(false, now + IdleBackoff::kAwake, kLongest),
            IdleBackoff::kFirstSleep);
}

TEST(IdleBackoff, SleepsLongerAndLongerUpToItsLimit) {
  IdleBackoff backoff;
  backoff.AfterRound(false, nanoseconds(0), kLongest);
  std::vector<microseconds> sleeps;
  for (int i = 1; i <= 7; i++) {
    sleeps.push_back(std::chrono::duration_cast<microseconds>(
        backoff.AfterRound(false, milliseconds(i), kLongest)));
  }
  EXPECT_EQ(sleeps, (std::vector<microseconds>{
                        microseconds(10), microseconds(20), microseconds(40),
                        microseconds(80), microseconds(160), microseconds(200),
                        microseconds(200)}));
}

TEST(IdleBackoff, IsAwakeAgainAfterWork) {
  IdleBackoff backoff;
  for (int i = 0; i < 10; i++) {
    backoff.AfterRound(false, milliseconds(i), kLongest);
  }
  EXPECT_EQ(backoff.AfterRound(true, milliseconds(10), kLongest), kNever);
  EXPECT_EQ(backoff.AfterRound(false, milliseconds(20), kLongest), kNever);
  EXPECT_EQ(backoff.AfterRound(false, milliseconds(21), kLongest),
            IdleBackoff::kFirstSleep);
}

TEST(IdleBackoff, NeverSleepsWithALimitOfZero) {
  IdleBackoff backoff;
  for (int i = 0; i < 100; i++) {
    EXPECT_EQ(backoff.AfterRound(false, milliseconds(i), kNever), kNever);
  }
  // And starts small once it may.
  EXPECT_EQ(backoff.AfterRound(false, milliseconds(100), kLongest),
            IdleBackoff::kFirstSleep);
}

class IdleWorkerTest : public HostTest {
 protected:
  ~IdleWorkerTest() override {
    Worker::StopAll();
    Worker::SetLongestIdleSleep(Worker::kDefaultIdleSleep);
  }

  // Processor time of the whole process, for the test's thread sleeps.
  static nanoseconds Used() {
    timespec time;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return std::chrono::seconds(time.tv_sec) + nanoseconds(time.tv_nsec);
  }

  // The processor time that an idle worker takes up in 300 ms.
  nanoseconds IdleFor300ms() {
    bess::CreateResult source = bess::CreateModule("Source");
    EXPECT_EQ(Worker::Add(0), "");
    EXPECT_EQ(Worker::AttachTasks(source.module, 0), "");
    EXPECT_EQ(Worker::ResumeAll(), "");
    std::this_thread::sleep_for(milliseconds(20));
    const nanoseconds before = Used();
    std::this_thread::sleep_for(milliseconds(300));
    return Used() - before;
  }
};

TEST_F(IdleWorkerTest, LeavesTheProcessorToOthers) {
  EXPECT_LT(IdleFor300ms(), milliseconds(60));
}

// Sleeps double, so that after 700 ms it is in one that ends at 1280.
TEST_F(IdleWorkerTest, HoldsUpNoGracePeriodWhileItSleeps) {
  Worker::SetLongestIdleSleep(std::chrono::seconds(2));
  IdleFor300ms();
  std::this_thread::sleep_for(milliseconds(400));
  const auto begin = std::chrono::steady_clock::now();
  synchronize_rcu();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, milliseconds(400));
}

TEST_F(IdleWorkerTest, PollsAllTheTimeWhenToldSo) {
  Worker::SetLongestIdleSleep(microseconds(0));
  const uint64_t before = Worker::Runs(0);
  IdleFor300ms();
  // A worker that sleeps comes to about 1500 runs.
  EXPECT_GT(Worker::Runs(0) - before, 5000u);
}

}  // namespace
