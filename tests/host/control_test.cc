// SPDX-License-Identifier: BSD-3-Clause
#include "control.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <urcu-qsbr.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

#include "qsbr.h"

namespace {

using bess::ControlThread;

ControlThread& control() { return ControlThread::Instance(); }

TEST(ControlThreadTest, IsOneThreadOfItsOwn) {
  std::thread::id first;
  std::thread::id second;
  control().Run([&] { first = std::this_thread::get_id(); });
  std::thread([&] {
    control().Run([&] { second = std::this_thread::get_id(); });
  }).join();
  EXPECT_EQ(first, second);
  EXPECT_NE(first, std::this_thread::get_id());
  EXPECT_FALSE(control().IsCurrent());
  control().Run([] { EXPECT_TRUE(control().IsCurrent()); });
  char name[16] = "";
  control().Run(
      [&] { pthread_getname_np(pthread_self(), name, sizeof(name)); });
  EXPECT_STREQ(name, "command");
}

TEST(ControlThreadTest, HasAStackForAMillionRecords) {
  control().Run([] {
    pthread_attr_t attr;
    ASSERT_EQ(pthread_getattr_np(pthread_self(), &attr), 0);
    size_t size = 0;
    pthread_attr_getstacksize(&attr, &size);
    pthread_attr_destroy(&attr);
    EXPECT_GE(size, size_t{64} << 20);
    volatile char records[48 << 20];
    records[0] = 1;
    records[sizeof(records) - 1] = 1;
  });
}

TEST(ControlThreadTest, IsAReaderThatIsOnlineWhileItRuns) {
  control().Run([] {
    EXPECT_TRUE(rcu_read_ongoing());
    synchronize_rcu();
    EXPECT_TRUE(rcu_read_ongoing());
  });
  // Were it online while it waits, this would never end.
  synchronize_rcu();
}

TEST(ControlThreadTest, CallersDoNotHoldUpGracePeriods) {
  const bess::QsbrReader reader;
  EXPECT_TRUE(rcu_read_ongoing());
  control().Run([] { synchronize_rcu(); });
  EXPECT_TRUE(rcu_read_ongoing());
}

TEST(ControlThreadTest, ACallerThatIsOfflineStaysSo) {
  const bess::QsbrReader reader;
  rcu_thread_offline();
  control().Run([] {});
  EXPECT_FALSE(rcu_read_ongoing());
  rcu_thread_online();
  control().Run([] {});
  EXPECT_TRUE(rcu_read_ongoing());
}

TEST(ControlThreadTest, RunsAtOnceWhenCalledFromItself) {
  std::vector<int> order;
  control().Run([&] {
    order.push_back(1);
    control().Run([&] { order.push_back(2); });
    order.push_back(3);
  });
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST(ControlThreadTest, CarriesExceptionsBack) {
  try {
    control().Run([] { throw std::runtime_error("from over there"); });
    FAIL();
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "from over there");
  }
  bool alive = false;
  control().Run([&] { alive = true; });
  EXPECT_TRUE(alive);
}

TEST(ControlThreadTest, OneAtATime) {
  std::atomic<int> inside = 0;
  int total = 0;
  std::vector<std::thread> callers;
  for (int i = 0; i < 8; i++) {
    callers.emplace_back([&] {
      for (int j = 0; j < 200; j++) {
        control().Run([&] {
          EXPECT_EQ(++inside, 1);
          total++;
          --inside;
        });
      }
    });
  }
  for (std::thread& caller : callers) {
    caller.join();
  }
  EXPECT_EQ(total, 1600);
}

TEST(ControlThreadTest, InTheOrderOfAsking) {
  std::vector<int> order;
  std::atomic<bool> go = false;
  std::thread blocker([&] {
    control().Run([&] {
      while (!go) {
        std::this_thread::yield();
      }
      // Whoever runs already does not wait behind the others.
      control().Run([&] { order.push_back(-1); });
    });
  });
  std::vector<std::thread> callers;
  for (int i = 0; i < 5; i++) {
    // Long enough apart to be queued one after the other.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    callers.emplace_back(
        [&, i] { control().Run([&] { order.push_back(i); }); });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  go = true;
  blocker.join();
  for (std::thread& caller : callers) {
    caller.join();
  }
  EXPECT_EQ(order, (std::vector<int>{-1, 0, 1, 2, 3, 4}));
}

}  // namespace
