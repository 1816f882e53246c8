// SPDX-License-Identifier: BSD-3-Clause
//
// "ofswitch run" with flows that DPDK's memory has no room for.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <string>

#include "tests/captures/capture_files.h"
#include "tests/support/programs_may_leak.h"
#include "tests/switch/running_switch.h"

namespace ofswitch {
namespace {

using openflow_test::readFile;
using openflow_test::writeFile;
using testing::AnyOf;
using testing::HasSubstr;

constexpr char kConfig[] =
    "ports:\n"
    "  - {number: 1, device: net_null0}\n"
    "  - {number: 2, device: net_null1}\n"
    "memory: {mb: 64, buffers: 511}\n"
    "counters: 1048576\n"
    "control: {socket: control.sock}\n"
    "metrics: false\n";

class RunFullHeap : public testing::Test {
 protected:
  // `count` flows for hosts that none of before was for.
  std::string hosts(int table, int count) {
    std::string text;
    for (int i = 0; i < count; i++, next_++) {
      text += fmt::format(
          "table={},priority=10,tcp,nw_dst=10.{}.{}.1,actions=output:2\n",
          table, next_ / 256, next_ % 256);
    }
    return text;
  }

  // What the command says; empty when it has succeeded.
  std::string add(const std::string& flows) {
    writeFile(dir_ / "add.txt", flows);
    const std::string command = fmt::format(
        "cd {} && {} flows add --file add.txt --socket "
        "control.sock > stdout 2> stderr",
        dir_.path().string(), OFSWITCH);
    return std::system(command.c_str()) == 0 ? "" : readFile(dir_ / "stderr");
  }

  const openflow_test::ProgramsMayLeak records_;
  openflow_test::ScratchDir dir_;
  int next_ = 0;
};

// Where the heap ends among the steps of an update depends on what is there.
TEST_F(RunFullHeap, EveryChangeIsMadeOrRefused) {
  writeFile(dir_ / "switch.yaml", kConfig);
  for (const int base : {900, 1100}) {
    next_ = 0;
    RunningSwitch process(dir_ / "switch.yaml", dir_ / "log");
    ASSERT_TRUE(process.waitFor("running: ")) << process.log();
    EXPECT_EQ(add(hosts(31, base)), "");
    std::string refusal;
    for (int table = 1; table <= 9; table++) {
      refusal = add(hosts(table, 4000));
      EXPECT_THAT(refusal, AnyOf("", HasSubstr("all flows are as they were")))
          << process.log();
    }
    EXPECT_THAT(refusal, HasSubstr("memory.mb")) << base;
    EXPECT_EQ(process.end(SIGTERM), 0) << process.log();
  }
}

TEST_F(RunFullHeap, FlowFilesThatDoNotFitAreNamed) {
  std::string flows;
  for (int table = 1; table <= 9; table++) flows += hosts(table, 4000);
  writeFile(dir_ / "flows.txt", flows);
  writeFile(dir_ / "switch.yaml", std::string(kConfig) + "flows: flows.txt\n");
  RunningSwitch process(dir_ / "switch.yaml", dir_ / "log");
  EXPECT_EQ(process.end(0), 1);
  EXPECT_THAT(process.log(), HasSubstr((dir_ / "flows.txt").string() +
                                       ": the flows cannot be loaded: table "));
  EXPECT_THAT(process.log(), HasSubstr("memory.mb"));
}

}  // namespace
}  // namespace ofswitch
