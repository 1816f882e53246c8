// SPDX-License-Identifier: BSD-3-Clause
//
// "ofswitch stats", once and watched.
#include <gmock/gmock.h>

#include <chrono>

#include "tests/client/reports.h"

namespace ofswitch {
namespace {

using testing::HasSubstr;

TEST_F(Reports, Stats) {
  fake_.stats = {stats(3723, 10)};
  run("stats --exact");
  EXPECT_EQ(status_, 0) << err_;
  EXPECT_TRUE(fake_.statsRequest.pause());
  EXPECT_EQ(out_,
            "up 1 h 2 min, 1 flow, 2 flow changes, 1 flow expired by idle "
            "timeout, 7 by hard timeout\n"
            "\n"
            "Packets\n"
            "  packets bytes\n"
            "       10  1000  received\n"
            "        5        forwarded\n"
            "       40        copies for outputs\n"
            "       30  3000  copies sent\n"
            "\n"
            "Dropped\n"
            "  packets  where    cause\n"
            "        5  table 0  table_miss  About table_miss.\n"
            "        3  port 2   rx_missed   About rx_missed.\n"
            "  1000001  port 3   rx_missed   About rx_missed.\n"
            "\n"
            "Workers\n"
            "  worker core rounds  state    serves\n"
            "       0  any     17  running  port1 queue 0, port2 queue 0\n"
            "\n"
            "Packet buffers: 90 of 100 free\n"
            "Every packet is accounted for.\n");
  run("stats --json");
  EXPECT_FALSE(fake_.statsRequest.pause());
  EXPECT_EQ(json()["packetsReceived"], 10);
  EXPECT_EQ(json()["workers"][0]["core"], -1);
  EXPECT_EQ(json()["closes"], true);
}

TEST_F(Reports, StatsOfManyAndOfNone) {
  pb::StatsReply reply;
  reply.set_uptime_ns(59 * kSecond);
  reply.set_flows(2);
  reply.set_flow_changes(1);
  reply.set_expired_idle(3);
  reply.set_packets_in_flight(1);
  reply.set_closes(true);
  pb::WorkerStats* worker = reply.add_workers();
  worker->set_worker(1);
  worker->set_core(3);
  reply.add_workers()->set_worker(2);  // on core 0
  *reply.add_drops() = drop("no_such_port", 2);
  fake_.stats = {reply};
  run("stats");
  EXPECT_EQ(status_, 0) << err_;
  EXPECT_FALSE(fake_.statsRequest.pause());
  EXPECT_EQ(out_,
            "up 59 s, 2 flows, 1 flow change, 3 flows expired by idle "
            "timeout, 0 by hard timeout\n"
            "\n"
            "Packets\n"
            "  packets bytes\n"
            "        0     0  received\n"
            "        0        forwarded\n"
            "        0        copies for outputs\n"
            "        0     0  copies sent\n"
            "\n"
            "Dropped\n"
            "  packets  where   cause\n"
            "        2  switch  no_such_port  About no_such_port.\n"
            "\n"
            "Workers\n"
            "  worker core rounds  state    serves\n"
            "       1    3      0  stopped\n"
            "       2    0      0  stopped\n"
            "\n"
            "Packet buffers: 0 of 0 free\n"
            "1 packet was under way while this was read; --exact rules that "
            "out.\n");
}

TEST_F(Reports, StatsThatDoNotClose) {
  fake_.stats = {stats(3, 10)};
  fake_.stats[0].set_exact(false);
  fake_.stats[0].set_packets_in_flight(1);
  run("stats");
  EXPECT_EQ(status_, 0);
  EXPECT_THAT(out_, HasSubstr("\n1 packet was under way while this was read; "
                              "--exact rules that out.\n"));
  fake_.stats[0].set_closes(false);
  fake_.stats[0].add_discrepancies("table 3: 7 packets came, but 6 ended");
  run("stats");
  EXPECT_EQ(status_, 1);
  EXPECT_THAT(
      out_,
      HasSubstr("\nDOES NOT ADD UP: table 3: 7 packets came, but 6 ended\n"));
}

TEST_F(Reports, WatchedStatsHaveRates) {
  fake_.stats = {stats(10, 10), stats(12, 4'000'010)};
  run("stats --watch 0.05 --count 2");
  EXPECT_EQ(status_, 0) << err_;
  EXPECT_THAT(out_,
              HasSubstr("Every packet is accounted for.\n"
                        "\n"
                        "up 12 s, 1 flow, 2 flow changes, 1 flow expired by "
                        "idle timeout, 7 by hard timeout\n"
                        "\n"
                        "Packets\n"
                        "   packets      bytes packets/s  bit/s\n"
                        "   4000010  400001000    2.00 M 1.60 G  received\n"
                        "   2000005               1.00 M         forwarded\n"
                        "  16000040               8.00 M         copies for "
                        "outputs\n"
                        "  12000030 1200003000    6.00 M 4.80 G  copies "
                        "sent\n"
                        "\n"
                        "Dropped\n"
                        "  packets per second  where    cause\n"
                        "  2000005     1.00 M  table 0  table_miss  About "
                        "table_miss.\n"
                        "        3          0  port 2   rx_missed   About "
                        "rx_missed.\n"
                        "  1400001      200 k  port 3   rx_missed   About "
                        "rx_missed.\n"));
  EXPECT_THAT(out_, testing::StartsWith("up 10 s"));
  EXPECT_EQ(out_.find('\033'), std::string::npos);
}

TEST_F(Reports, WatchedStatsAsJsonAreOneObjectALine) {
  fake_.stats = {stats(10, 10), stats(12, 30)};
  run("stats --watch 0.05 --count 2 --json");
  EXPECT_FALSE(fake_.statsRequest.pause());
  const size_t end = out_.find('\n');
  const auto first = nlohmann::json::parse(out_.substr(0, end));
  const auto second = nlohmann::json::parse(out_.substr(end + 1));
  EXPECT_EQ(first["packetsReceived"], 10);
  EXPECT_FALSE(first.contains("perSecond"));
  EXPECT_EQ(second["packetsReceived"], 30);
  EXPECT_EQ(second["perSecond"], nlohmann::json({{"packetsReceived", 10.0},
                                                 {"bytesReceived", 1000.0},
                                                 {"packetsForwarded", 5.0},
                                                 {"copiesOutput", 40.0},
                                                 {"packetsSent", 30.0},
                                                 {"bytesSent", 3000.0}}));
}

TEST_F(Reports, WatchedStatsCanBeExact) {
  fake_.stats = {stats(10, 10)};
  run("stats --watch 0.05 --count 1 --exact");
  EXPECT_EQ(status_, 0);
  EXPECT_TRUE(fake_.statsRequest.pause());
}

// A device that finds out late that it has not sent a packet takes it back.
TEST_F(Reports, ACounterThatGoesBackGainsNothing) {
  fake_.stats = {stats(10, 10), stats(12, 30)};
  fake_.stats[1].set_packets_sent(9);
  fake_.stats[1].mutable_drops(2)->set_packets(2);
  run("stats --watch 0.05 --count 2");
  EXPECT_EQ(status_, 0) << err_;
  EXPECT_THAT(out_,
              HasSubstr("        9  9000         0 24000  copies sent\n"));
  EXPECT_THAT(out_, HasSubstr("        2          0  port 2   rx_missed"));
}

TEST_F(Reports, ACounterThatGoesBackGainsNothingInJsonEither) {
  fake_.stats = {stats(10, 10), stats(12, 30)};
  fake_.stats[1].set_packets_sent(9);
  run("stats --watch 0.05 --count 2 --json");
  const auto second = nlohmann::json::parse(out_.substr(out_.find('\n') + 1));
  EXPECT_EQ(second["perSecond"]["packetsSent"], 0.0);
}

// A switch that was started anew meanwhile has counted less.
TEST_F(Reports, RatesOfASwitchThatWasStartedAnewBeginAnew) {
  fake_.stats = {stats(10, 1000), stats(12, 1000)};
  fake_.stats[1].set_uptime_ns(kSecond);
  fake_.stats[1].set_packets_received(4);
  run("stats --watch 0.05 --count 2 --json");
  EXPECT_EQ(out_.find("perSecond"), std::string::npos) << out_;
}

// Nor has one whose clock was put back any rates that make sense.
TEST_F(Reports, RatesOfASwitchWhoseClockWasPutBackBeginAnew) {
  fake_.stats = {stats(10, 1000), stats(12, 2000)};
  fake_.stats[1].set_time_ns(fake_.stats[0].time_ns());
  run("stats --watch 0.05 --count 2 --json");
  EXPECT_EQ(out_.find("perSecond"), std::string::npos) << out_;
}

// Causes are known by name, table and port; what was not there has begun at 0.
// A cause that this program does not know is one of the whole switch.
TEST_F(Reports, RatesOfDropsAreThoseOfTheSameCause) {
  pb::StatsReply reply = stats(10, 0);
  reply.clear_drops();
  reply.clear_workers();
  fake_.stats = {reply, reply};
  *fake_.stats[0].add_drops() = drop("table_miss", 100, 1);
  *fake_.stats[1].add_drops() = drop("table_miss", 40, 2);
  *fake_.stats[1].add_drops() = drop("solar_wind", 20, 2);
  *fake_.stats[1].add_drops() = drop("table_miss", 160, 1);
  fake_.stats[1].set_time_ns(reply.time_ns() + 2 * kSecond);
  fake_.stats[1].set_uptime_ns(reply.uptime_ns() + 2 * kSecond);
  run("stats --watch 0.05 --count 2");
  EXPECT_EQ(status_, 0) << err_;
  EXPECT_THAT(out_, HasSubstr("Dropped\n"
                              "  packets per second  where    cause\n"
                              "       40       20.0  table 2  table_miss  "
                              "About table_miss.\n"
                              "       20       10.0  switch   solar_wind  "
                              "About solar_wind.\n"
                              "      160       30.0  table 1  table_miss  "
                              "About table_miss.\n"
                              "\n"
                              "Packet buffers: 90 of 100 free\n"));
}

TEST_F(Reports, WatchReadsEverySecondUnlessItIsTold) {
  fake_.stats = {stats(10, 10), stats(11, 20)};
  const auto start = std::chrono::steady_clock::now();
  run("stats --watch --count 2");
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
  EXPECT_EQ(status_, 0) << err_;
  EXPECT_THAT(out_, testing::StartsWith("up 10 s"));
  EXPECT_THAT(out_, HasSubstr("\n\nup 11 s"));
}

TEST_F(Reports, WatchTakesACountFromOneUp) {
  run("stats --watch 0.05 --count 0");
  EXPECT_EQ(status_, 2);
  EXPECT_EQ(err_, "ofswitch: --count: Value 0 not in range 1 to 1000000000\n");
  // It was taken for the highest number there is.
  run("stats --watch 0.05 --count -1");
  EXPECT_EQ(status_, 2);
}

TEST_F(Reports, RedrawOnATerminal) {
  fake_.stats = {stats(10, 10), stats(11, 20)};
  // script(1) gives it a terminal.
  run("", "script -qec '" OFSWITCH
          " stats --watch 0.05 --count 2' /dev/null "
          "< /dev/null; true");
  EXPECT_THAT(out_, testing::StartsWith("\033[H\033[2Jup 10 s"));
  EXPECT_THAT(out_, HasSubstr("\033[H\033[2Jup 11 s"));
}

}  // namespace
}  // namespace ofswitch
