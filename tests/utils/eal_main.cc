// SPDX-License-Identifier: BSD-3-Clause
// main() of test programs that need DPDK's heap: starts the EAL, without
// hugepages, root or devices, and makes the main thread a QSBR reader.
#include <gtest/gtest.h>
#include <rte_eal.h>
#include <urcu-qsbr.h>

#include <cstdio>
#include <vector>

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  // Programs with threads must start death tests anew, not fork them.
  GTEST_FLAG_SET(death_test_style, "threadsafe");

  std::vector<const char*> options = {argv[0],       "--no-huge", "--no-shconf",
                                      "--no-pci",    "-m",        "256",
                                      "--log-level", "error"};
  if (rte_eal_init(static_cast<int>(options.size()),
                   const_cast<char**>(options.data())) < 0) {
    fprintf(stderr, "the EAL does not start\n");
    return 1;
  }
  rcu_register_thread();
  const int result = RUN_ALL_TESTS();
  rcu_barrier();
  rcu_unregister_thread();
  return result;
}
