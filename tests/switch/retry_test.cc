// SPDX-License-Identifier: BSD-3-Clause
#include "switch/live/retry.h"

#include <gtest/gtest.h>

namespace ofswitch {
namespace {

using std::chrono::nanoseconds;
using std::chrono::seconds;

TEST(Retry, WaitsTwiceAsLongEachTimeAndAMinuteAtMost) {
  Retry retry;
  Retry::Time now{};
  EXPECT_TRUE(retry.isDue(now));
  retry.failed(now);
  EXPECT_TRUE(retry.isDue(now));
  for (const int wait : {1, 2, 4, 8, 16, 32, 60, 60, 60}) {
    retry.failed(now);
    now += seconds(wait);
    EXPECT_FALSE(retry.isDue(now - nanoseconds(1))) << wait;
    EXPECT_TRUE(retry.isDue(now)) << wait;
  }
}

}  // namespace
}  // namespace ofswitch
