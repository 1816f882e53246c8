// SPDX-License-Identifier: BSD-3-Clause
#include "tests/client/reports.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <string>

namespace ofswitch {
namespace {

using testing::HasSubstr;

TEST_F(Reports, Tables) {
  pb::Table* table = fake_.tables.add_tables();
  table->set_table(3);
  table->set_flows(2);
  table->set_entered(1000);
  table->set_matched(990);
  table->mutable_ipv4()->set_flows(4);
  table->mutable_ipv4()->set_builds(2);
  table->mutable_ipv4()->set_longest_build_ns(1'500'000);
  table->mutable_ipv6()->set_builds(1);
  table->mutable_ipv6()->set_failed_builds(1);
  *table->add_drops() = drop("table_miss", 10, 3);
  *table->add_drops() = drop("no_output", 0, 3);
  table = fake_.tables.add_tables();
  table->set_table(7);
  table->mutable_ipv4()->set_longest_build_ns(1'000'000);
  table->mutable_ipv6()->set_flows(5);
  table->mutable_ipv6()->set_longest_build_ns(2'500'000);
  fake_.tables.add_tables()->set_table(8);
  run("tables --all");
  EXPECT_EQ(status_, 0) << err_;
  EXPECT_TRUE(fake_.tablesRequest.all());
  EXPECT_EQ(out_,
            "  table flows IPv4 rules IPv6 rules packets matched dropped "
            "builds failed longest build\n"
            "      3     2          4          0    1000     990      10      "
            "3      1       1.50 ms\n"
            "      7     0          0          5       0       0       0      "
            "0      0       2.50 ms\n"
            "      8     0          0          0       0       0       0      "
            "0      0             -\n"
            "\n"
            "Dropped\n"
            "  packets  where    cause\n"
            "       10  table 3  table_miss  About table_miss.\n");
  run("tables --json");
  EXPECT_FALSE(fake_.tablesRequest.all());
  EXPECT_EQ(json()[0]["table"], 3);
  EXPECT_EQ(json()[0]["ipv4"]["longestBuildNs"], 1'500'000);
  EXPECT_EQ(json()[0]["drops"][0]["packets"], 10);
}

TEST_F(Reports, NoTables) {
  run("tables");
  EXPECT_EQ(out_,
            "no table has flows or has seen a packet; --all lists all "
            "tables\n");
  run("tables --json");
  EXPECT_EQ(out_, "[]\n");
}

TEST_F(Reports, Ports) {
  pb::Port* port = fake_.ports.add_ports();
  port->set_name("controller");
  port->set_tx_packets(5);
  port->set_tx_bytes(500);
  port = fake_.ports.add_ports();
  port->set_port(2);
  port->set_name("uplink");
  port->set_device("0000:03:00.0");
  port->set_link_up(true);
  port->set_speed_mbps(10000);
  port->set_mtu(1500);
  port->set_rx_packets(12);
  port->set_rx_bytes(1200);
  *port->add_drops() = drop("rx_missed", 4, 0, 2);
  port = fake_.ports.add_ports();
  port->set_port(13);
  port->set_name("tap");
  port->set_device("net_tap0");
  port->set_mtu(9000);
  run("ports");
  EXPECT_EQ(status_, 0) << err_;
  EXPECT_EQ(out_,
            "  port Mbit/s  MTU packets in bytes in packets out bytes out "
            "dropped  link  name        device\n"
            "     0      -    -          0        0           5       500     "
            "  0  -     controller\n"
            "     2  10000 1500         12     1200           0         0     "
            "  4  up    uplink      0000:03:00.0\n"
            "    13      - 9000          0        0           0         0     "
            "  0  down  tap         net_tap0\n"
            "\n"
            "Dropped\n"
            "  packets  where   cause\n"
            "        4  port 2  rx_missed  About rx_missed.\n");
  run("ports --json");
  EXPECT_EQ(json().size(), 3u);
  EXPECT_EQ(json()[1]["speedMbps"], 10000);
  EXPECT_EQ(json()[2]["linkUp"], false);
}

TEST_F(Reports, Log) {
  pb::LogEntry entry;
  entry.set_position(7);
  entry.set_time_ns(86400 * kSecond + 1'234'567);
  entry.set_facility("OpenFlow");
  entry.set_level(2);
  entry.set_text("a step\x1b");
  fake_.log = {entry};
  run("log --level 3 --facility OpenFlow --last 9");
  EXPECT_EQ(status_, 0) << err_;
  EXPECT_EQ(out_, "1970-01-02 00:00:00.001234 OpenFlow/2 a step\\x1b\n");
  EXPECT_EQ(fake_.logRequest.max_level(), 3u);
  EXPECT_EQ(fake_.logRequest.facility(), "OpenFlow");
  EXPECT_EQ(fake_.logRequest.last(), 9u);
  EXPECT_FALSE(fake_.logRequest.follow());
  run("log --json");
  EXPECT_EQ(json()["position"], 7);
  EXPECT_EQ(json()["text"], "a step\x1b");
  EXPECT_EQ(fake_.logRequest.max_level(), 31u);
}

TEST_F(Reports, ALogWithoutTheFacilityThatIsAskedFor) {
  fake_.log = {};
  run("log --facility Nope");
  EXPECT_EQ(status_, 0);
  EXPECT_EQ(out_, "");
  EXPECT_EQ(err_,
            "note: no entry of \"Nope\"; \"ofswitch log levels\" tells who "
            "logs\n");
  run("log");
  EXPECT_EQ(out_ + err_, "") << "a log may be empty";
}

TEST_F(Reports, AnOutputThatNobodyTakesIsAFailure) {
  fake_.stats = {stats(10, 10)};
  pb::LogEntry entry;
  entry.set_facility("OpenFlow");
  fake_.log = {entry};
  for (const char* command : {"log", "log --follow", "stats --watch 0.05"}) {
    run(command + std::string(" > /dev/full"));
    EXPECT_EQ(status_, 1) << command;
    EXPECT_EQ(err_, "ofswitch: standard output: No space left on device\n");
  }
}

TEST_F(Reports, LogLevels) {
  (*fake_.levels.mutable_levels())["OpenFlow"] = 7;
  (*fake_.levels.mutable_levels())["Controller"] = 0;
  (*fake_.levels.mutable_levels())["Other"] = 5;
  run("log levels OpenFlow=2 Controller=none X=31");
  EXPECT_EQ(status_, 0) << err_;
  EXPECT_EQ(out_, "Controller=none\nOpenFlow=2\nOther=mask 0x5\n");
  const auto& sent = fake_.levelsRequest.levels();
  EXPECT_EQ(sent.size(), 3u);
  EXPECT_EQ(sent.at("OpenFlow"), 7u);
  EXPECT_EQ(sent.at("Controller"), 0u);
  EXPECT_EQ(sent.at("X"), 0xffffffffu);
  run("log levels --json");
  EXPECT_EQ(fake_.levelsRequest.levels_size(), 0);
  EXPECT_EQ(json()["OpenFlow"], 7);

  for (const char* wrong :
       {"OpenFlow=32", "OpenFlow=-1", "OpenFlow=x", "OpenFlow=3x"}) {
    run(std::string("log levels ") + wrong);
    EXPECT_EQ(status_, 2);
    EXPECT_EQ(err_, std::string("ofswitch: log levels: ") + wrong +
                        ": a level is a number from 0 to 31, or none\n");
  }
  for (const char* wrong : {"OpenFlow", "=3"}) {
    run(std::string("log levels ") + wrong);
    EXPECT_EQ(status_, 2);
    EXPECT_EQ(err_, std::string("ofswitch: log levels: ") + wrong +
                        ": must be FACILITY=LEVEL\n");
  }
}

// The shell's words for waiting until a command succeeds, half a minute long.
std::string until(const std::string& command) {
  return "i=0; until " + command +
         " || [ $i = 1500 ]; do i=$((i + 1)); sleep 0.02; done";
}

// Ctrl-C is how these end, so that it is no failure.
TEST_F(Reports, EndOnCtrlC) {
  // Sends the signal when `text` was printed.
  const auto interrupt = [this](const std::string& arguments,
                                const std::string& text,
                                const std::string& signal = "INT") {
    run(arguments + " & p=$!; " + until("grep -q '" + text + "' stdout") +
        "; kill -" + signal + " $p; wait $p");
    EXPECT_EQ(status_, 0) << arguments;
    EXPECT_EQ(err_, "");
  };
  fake_.stats = {stats(10, 10)};
  fake_.log.resize(1);
  fake_.log[0].set_text("an entry");
  interrupt("log --follow", "an entry");
  EXPECT_EQ(out_, "1970-01-01 00:00:00.000000 /0 an entry\n");
  interrupt("log --follow", "an entry", "TERM");
  interrupt("stats --watch 3600", "accounted for", "TERM");
  interrupt("stats --watch 3600", "accounted for");
  EXPECT_THAT(out_, testing::EndsWith("Every packet is accounted for.\n"));
}

TEST_F(Reports, EndOnCtrlCWithoutAnAnswer) {
  fake_.stats = {stats(10, 10)};
  fake_.statsGiven = 1;
  run("stats --watch 0.05 & p=$!; " +
      until("test -e " + fake_.waiting().string()) + "; kill -INT $p; wait $p");
  EXPECT_TRUE(std::filesystem::exists(fake_.waiting()));
  EXPECT_EQ(status_, 0);
  EXPECT_EQ(err_, "");
  EXPECT_THAT(out_, testing::EndsWith("Every packet is accounted for.\n"));
}

TEST_F(Reports, ALogOfAFacilityThatIsFollowedMayBeginEmpty) {
  fake_.log = {};
  fake_.endsLogs = true;
  run("log --facility Nope --follow");
  EXPECT_EQ(status_, 0);
  EXPECT_EQ(err_, "");
}

TEST_F(Reports, WaitForATimeInBounds) {
  run("ports --wait 0.1");
  EXPECT_EQ(status_, 0) << err_;
  run("ports --wait 86400");
  EXPECT_EQ(status_, 0) << err_;
  for (const char* wrong : {"0.05", "86401", "x"}) {
    run(std::string("ports --wait ") + wrong);
    EXPECT_EQ(status_, 2) << wrong;
  }
}

TEST_F(Reports, HelpHasExamples) {
  for (const char* command :
       {"tables", "ports", "stats", "log", "log levels"}) {
    run(std::string(command) + " --help");
    EXPECT_EQ(status_, 0);
    EXPECT_THAT(out_,
                HasSubstr(std::string("Examples:\n  ofswitch ") + command));
  }
}

}  // namespace
}  // namespace ofswitch
