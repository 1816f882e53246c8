// SPDX-License-Identifier: BSD-3-Clause
#include <gtest/gtest.h>

#include <cstdio>

#include "eal.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (const std::string error = bess::InitEal(); !error.empty()) {
    fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  return RUN_ALL_TESTS();
}
