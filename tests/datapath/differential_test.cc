// SPDX-License-Identifier: BSD-3-Clause
//
// Random flows and traffic, module against twin. A failing run prints its seed,
// the packet, both results and the flows; the seed is also the test's
// parameter, so --gtest_filter repeats it.
#include "tests/datapath/datapath_test.h"
#include "tests/support/random_traffic.h"

namespace openflow_test {
namespace {

class Differential : public DataPath,
                     public ::testing::WithParamInterface<uint64_t> {
 protected:
  Random random{GetParam()};
  std::string flows;  // as text, for a failure
  size_t emitted = 0;

  // In place of those that the table has, so that no two of its flows have one
  // priority: which of them matches would be anybody's guess.
  void setRandomFlows(uint32_t table, uint32_t maxFlows, bool gotoTables) {
    for (const Family family : {Family::kIpv4, Family::kIpv6}) {
      RandomFlowOptions options;
      options.tableId = table;
      options.family = family;
      options.gotoTables = gotoTables;
      auto arg = randomUpdate(&random, maxFlows, options);
      for (auto id = static_cast<uint32_t>(arg.adds_size()); id < maxFlows;
           id++) {
        arg.add_deletes()->set_flowid(id);
      }
      update(arg);
      flows += arg.ShortDebugString() + "\n";
    }
  }

  // The same packet by packet: the first one that differs says most.
  void explain(const std::vector<InputPacket>& packets) {
    for (const InputPacket& packet : packets) {
      const RunResult module = harness().run({packet});
      const RunResult expected = twin().run({packet});
      if (module != expected) {
        ADD_FAILURE() << "packet " << packet << "module\n"
                      << module << "twin\n"
                      << expected << "flows\n"
                      << flows;
        return;
      }
    }
    ADD_FAILURE() << "differs only as a batch; flows\n" << flows;
  }

  // Answers whether both did the same.
  bool compare(const std::vector<InputPacket>& packets) {
    const RunResult module = harness().run(packets);
    const RunResult expected = twin().run(packets);
    if (twin().readGarbage()) {
      ADD_FAILURE() << "the generator made a copy too short to compare";
      return false;
    }
    emitted += module.numEmitted();
    if (module == expected) return true;
    explain(packets);
    return false;
  }
};

constexpr uint32_t kTables = 6;

TEST_P(Differential, WholeFramesThroughTables) {
  for (uint32_t table = 0; table < kTables; table++) {
    if (!random.oneIn(8)) setRandomFlows(table, 8, true);
  }
  RandomPacketOptions options;
  options.startTables = kTables;
  options.segments = true;
  for (int batch = 0; batch < 30; batch++) {
    if (!compare(randomBatch(&random, options))) return;
    if (batch % 10 == 9) setRandomFlows(random.below(kTables), 8, true);
  }
  EXPECT_GT(emitted, 0u) << "the flows let nothing through";
}

// So many that several of them match most packets.
TEST_P(Differential, HundredsOfOverlappingFlows) {
  constexpr uint32_t kMaxFlows = 300;
  setRandomFlows(0, kMaxFlows, true);
  setRandomFlows(1, kMaxFlows, false);
  RandomPacketOptions options;
  options.startTables = 2;
  for (int batch = 0; batch < 20; batch++) {
    if (!compare(randomBatch(&random, options))) return;
    if (batch == 9) setRandomFlows(1, kMaxFlows, false);
  }
}

TEST_P(Differential, TruncatedFramesInOneTable) {
  setRandomFlows(0, 10, false);
  setRandomFlows(3, 10, false);
  RandomPacketOptions options;
  options.truncate = true;
  options.startTables = 5;
  options.minLength = 16;  // for the controller's header, behind a popped tag
  for (int batch = 0; batch < 30; batch++) {
    if (!compare(randomBatch(&random, options))) return;
  }
}

TEST_P(Differential, ShortestFramesWithoutController) {
  RandomFlowOptions options;
  options.gotoTables = false;
  auto arg = randomUpdate(&random, 10, options);
  for (auto& add : *arg.mutable_adds()) {
    add.mutable_action()->mutable_fields()->clear_setoutputcontroller();
  }
  update(arg);
  flows = arg.ShortDebugString();
  RandomPacketOptions packets;
  packets.truncate = true;
  packets.startTables = 1;
  for (int batch = 0; batch < 10; batch++) {
    auto inputs = randomBatch(&random, packets);
    for (InputPacket& input : inputs) {
      input.bytes.resize(
          std::min<size_t>(input.bytes.size(), random.below(20)));
    }
    if (!compare(inputs)) return;
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, Differential,
                         ::testing::Range<uint64_t>(1, 25));

}  // namespace
}  // namespace openflow_test
