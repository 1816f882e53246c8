// SPDX-License-Identifier: BSD-3-Clause
#include "switch/control/work_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>

namespace ofswitch {
namespace {

using namespace std::chrono_literals;

TEST(WorkQueue, HasSoManyPlacesAndNoMore) {
  WorkQueue queue(1, 2);
  EXPECT_TRUE(queue.takePlace());
  EXPECT_TRUE(queue.takePlace());
  EXPECT_FALSE(queue.takePlace());
  queue.givePlaceBack();
  EXPECT_TRUE(queue.takePlace());
  EXPECT_FALSE(queue.takePlace());
}

TEST(WorkQueue, RunsWhatStillWaitsWhenItEnds) {
  std::promise<void> start;
  std::atomic<int> done = 0;
  {
    WorkQueue queue(1, 8);
    queue.add([&] { start.get_future().wait(); });
    for (int i = 0; i < 5; i++) queue.add([&] { done++; });
    start.set_value();
  }
  EXPECT_EQ(done, 5);
}

TEST(WorkQueue, RunsAsMuchAtOnceAsItHasThreads) {
  WorkQueue queue(2, 8);
  std::promise<void> first;
  std::promise<void> second;
  queue.add([&] { first.get_future().wait(); });
  queue.add([&] { second.set_value(); });
  EXPECT_EQ(second.get_future().wait_for(10s), std::future_status::ready);
  first.set_value();
}

TEST(WorkQueue, RunsFirstWhatCameFirst) {
  std::string order;
  std::promise<void> start;
  {
    WorkQueue queue(1, 8);
    queue.add([&] { start.get_future().wait(); });
    for (const char one : {'a', 'b', 'c'})
      queue.add([&, one] { order += one; });
    start.set_value();
  }
  EXPECT_EQ(order, "abc");
}

// What work holds may use the queue when it goes, and goes before there is
// something else to do.
TEST(WorkQueue, LetsGoOfWhatWorkHoldsAtOnce) {
  WorkQueue queue(1, 1);
  ASSERT_TRUE(queue.takePlace());
  std::promise<void> gone;
  const auto giveBack = [&](int*) {
    queue.givePlaceBack();
    gone.set_value();
  };
  int nothing = 0;
  queue.add([held = std::shared_ptr<int>(&nothing, giveBack)] {});
  ASSERT_EQ(gone.get_future().wait_for(10s), std::future_status::ready);
  EXPECT_TRUE(queue.takePlace());
}

}  // namespace
}  // namespace ofswitch
