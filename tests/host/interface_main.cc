// SPDX-License-Identifier: BSD-3-Clause
#include <glog/logging.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "eal.h"
#include "interface_fixture.h"

std::string no_namespace;

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  FLAGS_logtostderr = true;  // leaves no files behind
  google::InitGoogleLogging(argv[0]);
  no_namespace = EnterNetworkNamespace();
  if (const std::string error = bess::InitEal({.memory_mb = 256});
      !error.empty()) {
    fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  return RUN_ALL_TESTS();
}
