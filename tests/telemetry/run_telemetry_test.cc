// SPDX-License-Identifier: BSD-3-Clause
// What `ofswitch run` serves to monitoring, seen from another process.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>

#include "tests/support/listener.h"
#include "tests/support/time_limit.h"
#include "tests/switch/running_switch.h"
#include "tests/telemetry/http_get.h"
#include "tests/telemetry/metrics_text.h"

namespace ofswitch {
namespace {

using openflow_test::ScratchDir;
using testing::HasSubstr;

class RunTelemetry : public testing::Test {
 protected:
  void SetUp() override { setenv("RUNTIME_DIRECTORY", dir_.path().c_str(), 1); }
  void TearDown() override { unsetenv("RUNTIME_DIRECTORY"); }

  std::string config(const std::string& metrics) const {
    openflow_test::writeFile(dir_ / "flows.txt", "in_port=1,actions=drop\n");
    openflow_test::writeFile(
        dir_ / "switch.yaml",
        fmt::format("ports: [{{number: 1, device: net_null0}}]\n"
                    "memory: {{mb: 256}}\nflows: flows.txt\n"
                    "control: {{socket: control.sock}}\nmetrics: {}\n",
                    metrics));
    return dir_ / "switch.yaml";
  }

  // What follows `start` on its line of the log.
  static std::string lineOf(const std::string& log, const std::string& start) {
    const size_t at = log.find(start);
    if (at == std::string::npos) return "";
    return log.substr(at + start.size(),
                      log.find('\n', at) - at - start.size());
  }

  ScratchDir dir_;
};

TEST_F(RunTelemetry, ServesMetricsAndTheSocketOfDpdk) {
  RunningSwitch process(config("127.0.0.1:0"), dir_ / "log");
  ASSERT_TRUE(process.waitFor("running: ")) << process.log();
  const std::string url = lineOf(process.log(), "metrics: ");
  const MetricsText text(httpRequest(portOfUrl(url), "GET", "/metrics").body);
  EXPECT_EQ(text.value("ofswitch_flows"), 1);
  EXPECT_GT(text.value("ofswitch_table_dropped_packets_total",
                       {{"table", "0"}, {"cause", "drop_action"}}),
            0);

  const std::string command = lineOf(process.log(), "DPDK telemetry: ");
  const std::string start = fmt::format(
      "RUNTIME_DIRECTORY={} dpdk-telemetry.py -f ", dir_.path().string());
  ASSERT_THAT(command, testing::StartsWith(start));
  const std::filesystem::path runtime =
      dir_.path() / "dpdk" / command.substr(start.size());
  EXPECT_TRUE(std::filesystem::is_socket(runtime / "dpdk_telemetry.v2"));

  const auto stop = std::chrono::steady_clock::now();
  EXPECT_EQ(process.end(SIGTERM), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - stop,
            openflow_test::timeLimit(std::chrono::seconds(2)));
  EXPECT_FALSE(std::filesystem::exists(runtime));
}

TEST_F(RunTelemetry, ClearsAwayWhatTheKilledHaveLeft) {
  namespace fs = std::filesystem;
  const fs::path parent = dir_.path() / "dpdk";
  const auto directories = [&] {
    std::set<fs::path> found;
    for (const auto& entry : fs::directory_iterator(parent)) {
      found.insert(entry.path());
    }
    return found;
  };
  const std::string metrics = "false";
  RunningSwitch killed(config(metrics), dir_ / "log");
  ASSERT_TRUE(killed.waitFor("running: ")) << killed.log();
  const fs::path stale = parent / lineOf(killed.log(), "dpdk-telemetry.py -f ");
  EXPECT_EQ(killed.end(SIGKILL), -SIGKILL);
  ASSERT_THAT(directories(), testing::ElementsAre(stale));

  RunningSwitch living(config(metrics), dir_ / "log");
  ASSERT_TRUE(living.waitFor("running: ")) << living.log();
  const fs::path own = parent / lineOf(living.log(), "dpdk-telemetry.py -f ");
  EXPECT_THAT(directories(), testing::ElementsAre(own));

  // What is not like what a switch leaves is left alone, and so is a directory
  // whose socket is listened on although there is no process of its number.
  fs::create_directory(parent / "ofswitch");
  fs::create_directory(parent / "ofswitch99999999x");
  fs::create_directory(parent / "ofswitch99999998");
  openflow_test::writeFile(parent / "ofswitch99999998" / "notes", "");
  fs::create_directory_symlink(own, parent / "ofswitch99999997");
  fs::rename(own, parent / "ofswitch99999996");
  const std::set<fs::path> kept = directories();
  EXPECT_THAT(kept, testing::SizeIs(5));
  std::string text = openflow_test::readFile(dir_ / "switch.yaml");
  text.replace(text.find("control.sock"), 12, "third.sock");
  openflow_test::writeFile(dir_ / "third.yaml", text);
  RunningSwitch third(dir_ / "third.yaml", dir_ / "third.log");
  ASSERT_TRUE(third.waitFor("running: ")) << third.log();
  EXPECT_EQ(third.end(SIGTERM), 0);
  EXPECT_EQ(directories(), kept);
  fs::rename(parent / "ofswitch99999996", own);
  EXPECT_EQ(living.end(SIGTERM), 0);
}

TEST_F(RunTelemetry, ServesAsManyFlowsAsTheConfigurationSays) {
  const std::string path = config("{address: \"127.0.0.1:0\", flows: 1}");
  openflow_test::writeFile(dir_ / "flows.txt",
                           "table=1,actions=drop\ntable=2,actions=drop\n");
  RunningSwitch process(path, dir_ / "log");
  ASSERT_TRUE(process.waitFor("running: ")) << process.log();
  const std::string url = lineOf(process.log(), "metrics: ");
  const MetricsText text(httpRequest(portOfUrl(url), "GET", "/metrics").body);
  EXPECT_EQ(text.value("ofswitch_flows_without_series"), 1);
  EXPECT_EQ(process.end(SIGTERM), 0);
}

TEST_F(RunTelemetry, RefusesAPortThatIsTaken) {
  const auto other = openflow_test::Listener::onLoopback();
  const std::string taken = other.address();
  RunningSwitch process(config(taken), dir_ / "log");
  EXPECT_EQ(process.end(0), 1);
  EXPECT_THAT(process.log(),
              HasSubstr(fmt::format("ofswitch: metrics: cannot listen on {}: "
                                    "Address already in use; give another "
                                    "address, such as ",
                                    taken)));
}

TEST_F(RunTelemetry, ServesNoMetricsWhenToldSo) {
  RunningSwitch process(config("false"), dir_ / "log");
  ASSERT_TRUE(process.waitFor("running: ")) << process.log();
  EXPECT_THAT(process.log(), Not(HasSubstr("metrics: ")));
  EXPECT_EQ(process.end(SIGTERM), 0);
}

}  // namespace
}  // namespace ofswitch
