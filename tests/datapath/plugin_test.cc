// SPDX-License-Identifier: BSD-3-Clause
//
// The module as the host loads it: the same random traffic, through the shared
// library.
#include "plugin.h"

#include <gtest/gtest.h>

#include "tests/support/random_traffic.h"
#include "tests/support/reference.h"

namespace openflow_test {
namespace {

HarnessOptions fromPlugin() {
  HarnessOptions options;
  options.pluginPath = OPENFLOW_PLUGIN;
  return options;
}

void compareTraffic(uint64_t seed) {
  SCOPED_TRACE(seed);
  Random random(seed);
  ModuleHarness harness(fromPlugin());
  ReferenceModule twin;
  for (uint32_t table = 0; table < 4; table++) {
    for (const Family family : {Family::kIpv4, Family::kIpv6}) {
      RandomFlowOptions options;
      options.tableId = table;
      options.family = family;
      const auto update = randomUpdate(&random, 8, options);
      ASSERT_EQ(harness.updateFlows(update).error().code(), 0);
      ASSERT_EQ(twin.updateFlows(update), 0);
    }
  }
  RandomPacketOptions options;
  options.startTables = 4;
  for (int batch = 0; batch < 10; batch++) {
    const std::vector<InputPacket> packets = randomBatch(&random, options);
    ASSERT_EQ(harness.run(packets), twin.run(packets))
        << ::testing::PrintToString(packets);
  }
}

TEST(Plugin, RandomTraffic) {
  for (uint64_t seed = 101; seed < 106; seed++) compareTraffic(seed);
}

TEST(Plugin, LoadedAgain) {
  compareTraffic(201);
  ModuleHarness::waitForReleases();
  EXPECT_EQ(bess::UnloadPlugin(OPENFLOW_PLUGIN), "");
  compareTraffic(202);
}

TEST(Plugin, HidesItsClass) {
  ModuleHarness harness(fromPlugin());
  EXPECT_THROW(harness.module(), std::runtime_error);
}

}  // namespace
}  // namespace openflow_test
