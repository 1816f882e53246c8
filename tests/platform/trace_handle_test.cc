// SPDX-License-Identifier: BSD-3-Clause
#include "platform/mio/trace_handle.h"

#include <gtest/gtest.h>

namespace {

using Mio::setTraceLevels;
using Mio::TraceHandle;
using Mio::traceLevels;

TEST(TraceHandle, StartsWithTheLevelsGiven) {
  const TraceHandle none("Start.none", 0);
  const TraceHandle some("Start.some", 1u << 0 | 1u << 5);
  EXPECT_STREQ(some.name(), "Start.some");
  for (unsigned level = 0; level < 40; level++) {
    EXPECT_FALSE(none.enabled(level)) << level;
    EXPECT_EQ(some.enabled(level), level == 0 || level == 5) << level;
  }
}

TEST(TraceHandle, FollowsTheFacility) {
  const TraceHandle handle("Follow", 0);
  setTraceLevels("Follow", 1u << 2);
  EXPECT_TRUE(handle.enabled(2));
  EXPECT_FALSE(handle.enabled(0));
  setTraceLevels("Follow", 1u << 31);
  EXPECT_FALSE(handle.enabled(2));
  EXPECT_TRUE(handle.enabled(31));
  EXPECT_EQ(traceLevels("Follow"), 1u << 31);
  setTraceLevels("Follow", 0);
  EXPECT_FALSE(handle.enabled(31));
}

TEST(TraceHandle, FindsLevelsSetBeforeItExisted) {
  setTraceLevels("Before", 1u << 2);
  const TraceHandle handle("Before", 1u << 5);
  EXPECT_TRUE(handle.enabled(2));
  EXPECT_TRUE(handle.enabled(5));
  EXPECT_EQ(traceLevels("Before"), 1u << 2 | 1u << 5);
}

TEST(TraceHandle, HandlesOfOneNameShareOneFacility) {
  const TraceHandle first("Shared", 1u << 1);
  const TraceHandle second("Shared", 1u << 2);
  EXPECT_TRUE(first.enabled(2));
  EXPECT_TRUE(second.enabled(1));
  setTraceLevels("Shared", 0);
  EXPECT_FALSE(first.enabled(2));
  EXPECT_FALSE(second.enabled(2));
}

TEST(TraceHandle, FacilitiesOutliveTheirHandles) {
  { const TraceHandle handle("Outlived", 1u << 3); }
  EXPECT_EQ(traceLevels("Outlived"), 1u << 3);
  EXPECT_EQ(traceLevels("Never heard of"), 0u);
}

}  // namespace
