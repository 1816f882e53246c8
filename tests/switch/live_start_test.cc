// SPDX-License-Identifier: BSD-3-Clause
//
// How a switch starts, or why it does not.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>

#include "platform/mio/mio.h"
#include "plugin.h"
#include "tests/switch/live_bench.h"
#include "tests/switch/refuse_build.h"

namespace ofswitch {
namespace {

using openflow_test::ScratchDir;

class LiveStart : public testing::Test {
 protected:
  LiveStart() {
    config_ = LiveBench({})->config();
    config_.ports = {{1, "one", "net_null1", 1, 0}};
    config_.flowFiles.clear();
  }

  void addFlows(const std::string& name, const std::string& text) {
    openflow_test::writeFile(dir_ / name, text);
    config_.flowFiles.push_back({dir_ / name, "switch.yaml:7"});
  }

  std::string startError() const {
    try {
      LiveSwitch(config_).start();
    } catch (const StartError& error) {
      return error.what();
    }
    return "";
  }

  ScratchDir dir_;
  SwitchConfig config_;
};

TEST_F(LiveStart, SetsLogLevels) {
  const uint32_t before = Mio::traceLevels("ControlDoor");
  config_.logLevels = {{"ControlDoor", 11}};
  LiveSwitch live(config_);
  live.start();
  EXPECT_EQ(Mio::traceLevels("ControlDoor"), 11u);
  Mio::setTraceLevels("ControlDoor", before);
}

TEST_F(LiveStart, LeavesNoPluginThatIsNotTheModule) {
  const ConfiguredFile module = config_.module;
  config_.module = {NO_MODULE, "switch.yaml:3"};
  for (int i = 0; i < 2; i++) {
    EXPECT_THAT(startError(),
                testing::StartsWith("switch.yaml:3: " NO_MODULE ": "))
        << i;
    EXPECT_THAT(bess::ListPlugins(), testing::IsEmpty());
  }
  config_.module = module;
  EXPECT_EQ(startError(), "");
}

TEST_F(LiveStart, TellsAllThatIsWrongWithItsFlowFiles) {
  addFlows("a.txt", "in_port=1,actions=drop\nnonsense,actions=drop\n");
  addFlows("b.txt", "table=77,actions=drop\n");
  addFlows("none.txt", "");
  std::filesystem::remove(dir_ / "none.txt");
  EXPECT_EQ(startError(),
            fmt::format("{0}:2: unknown field \"nonsense\"\n"
                        "{1}:1: table=77: tables are numbers from 0 to 31\n"
                        "switch.yaml:7: {2}: cannot open: No such file or "
                        "directory",
                        (dir_ / "a.txt").string(), (dir_ / "b.txt").string(),
                        (dir_ / "none.txt").string()));
}

TEST_F(LiveStart, TakesTimeoutsOfFlowFilesAndNotesWhatIsOdd) {
  addFlows("a.txt", "idle_timeout=60,in_port=1,actions=output:1\n");
  addFlows("b.txt", "in_port=1,actions=output:77\n");
  LiveSwitch live(config_);
  live.start();
  const auto reading = live.read(10);
  EXPECT_EQ(reading->stats.flows(), 1u) << "the later file has the last word";
  EXPECT_EQ(reading->stats.flow_changes(), 0u) << "nobody asked for it";
  EXPECT_THAT(
      live.startNotes(),
      testing::IsSupersetOf(
          {fmt::format("{}:1: replaced by {}:1, which has the same "
                       "table, priority and match",
                       (dir_ / "a.txt").string(), (dir_ / "b.txt").string()),
           fmt::format("{}:1: output:77: port 77 is not connected, "
                       "what is sent there goes nowhere",
                       (dir_ / "b.txt").string())}));
}

TEST_F(LiveStart, RefusesMoreFlowsThanItHasCountersFor) {
  config_.counters = 1024;
  std::string text;
  for (int i = 1; i <= 600; i++) {
    text += fmt::format("tcp,tp_dst={},actions=drop\n", i);
  }
  addFlows("many.txt", text);
  EXPECT_EQ(startError(),
            fmt::format("{}:480: no counters are left for this flow: 1023 are "
                        "free; raise \"counters\" in the configuration",
                        (dir_ / "many.txt").string()));
}

TEST_F(LiveStart, TellsThatItsFlowsCannotBeBuilt) {
  addFlows("a.txt", "in_port=1,actions=drop\n");
  const RefuseBuild refuse(0);
  EXPECT_EQ(startError(),
            (dir_ / "a.txt").string() +
                ": the flows cannot be loaded: table 0 IPv4: its classifier "
                "could not be built: either DPDK's memory has no room for it "
                "(memory.mb), or its flows need more tries than a classifier "
                "can have and belong in more tables, see docs/flow-sets.md; "
                "all flows are as they were");
  config_.flowFiles.clear();
  EXPECT_EQ(startError(), "");
}

// No configuration that was read asks for it.
TEST_F(LiveStart, TellsWhatTheHostRefuses) {
  config_.ports.push_back({1, "two", "net_null2", 1, 0});
  EXPECT_EQ(startError(),
            "two_out: output gate 1 of module 'openflow' is linked");
  config_.ports.pop_back();
  config_.workers = {1023};
  EXPECT_THAT(startError(), testing::StartsWith("worker 0: "));
  config_.workers = {-1};
  EXPECT_EQ(startError(), "");
}

TEST_F(LiveStart, CanBeCalledOff) {
  EXPECT_THROW(LiveSwitch(config_).start([] { return true; }), StartCancelled);
  // Before the second build.
  addFlows("a.txt", "table=3,actions=drop\nipv6,actions=drop\n");
  for (int asked = 1; asked < 5; asked++) {
    int left = asked;
    const std::function<bool()> isCancelled = [&] { return left-- == 0; };
    LiveSwitch live(config_);
    if (asked < 4) {
      EXPECT_THROW(live.start(isCancelled), StartCancelled) << asked;
      EXPECT_FALSE(live.running());
      EXPECT_FALSE(live.isChangingFlows());
      EXPECT_FALSE(live.read(0).has_value());
    } else {
      EXPECT_NO_THROW(live.start(isCancelled)) << "nobody asks any more";
      EXPECT_TRUE(live.running());
      EXPECT_FALSE(live.isChangingFlows());
    }
  }
}

// It does not wait for its clock to tick: that would take most of a second.
TEST_F(LiveStart, EndsAtOnce) {
  std::chrono::steady_clock::duration best = std::chrono::hours(1);
  for (int i = 0; i < 10 && best > std::chrono::milliseconds(700); i++) {
    LiveSwitch live(config_);
    live.start();
    // So that the clock's thread has begun to wait.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const auto start = std::chrono::steady_clock::now();
    live.stop();
    best = std::min(best, std::chrono::steady_clock::now() - start);
  }
  EXPECT_LE(best, std::chrono::milliseconds(700));
}

}  // namespace
}  // namespace ofswitch
