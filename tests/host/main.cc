// SPDX-License-Identifier: BSD-3-Clause
#include <glog/logging.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "eal.h"
#include "packet_pool.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  FLAGS_logtostderr = true;  // leaves no files behind
  google::InitGoogleLogging(argv[0]);
  // Threads run from here on: a plain fork would leave them behind.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::string error = bess::InitEal({.memory_mb = 768});
  if (!error.empty()) {
    fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  // Large enough for the floods of emit_test.cc.
  bess::PacketPool::MakeDefault(131071);
  return RUN_ALL_TESTS();
}
