// SPDX-License-Identifier: BSD-3-Clause
#include <gtest/gtest.h>

#include <cstring>
#include <thread>

namespace {

// DPDK's telemetry finds the same function: every library of the process does.
TEST(Strtok, ThreadsHaveWordsOfTheirOwn) {
  char mine[] = "/ports,1";
  char theirs[] = "/tables,2";
  EXPECT_STREQ(strtok(mine, ","), "/ports");
  std::thread([&] { EXPECT_STREQ(strtok(theirs, ","), "/tables"); }).join();
  EXPECT_STREQ(strtok(nullptr, ","), "1");
  EXPECT_EQ(strtok(nullptr, ","), nullptr);
}

}  // namespace
