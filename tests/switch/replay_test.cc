// SPDX-License-Identifier: BSD-3-Clause
//
// The program "ofswitch replay": which packets come out where, with which bytes
// and times, and what the report says about them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>

#include "tests/switch/replay_command.h"

namespace openflow_test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

const uint32_t kHost1 = ip4("10.0.0.1");
const uint32_t kHost2 = ip4("10.0.0.2");
const Ip6 kHost61 = ip6("2001:db8::1");
const Ip6 kHost62 = ip6("2001:db8::2");
const Mac kNextHop = mac("02:00:00:00:00:22");
const Mac kRouter = mac("02:00:00:00:00:01");

constexpr uint64_t kStart = 1'700'000'000'000'000'000;

Frame udp(uint16_t port) {
  return Frame::eth().ipv4(kHost1, kHost2).udp(5, port).payload("payload");
}

TEST_F(ReplayCommand, RewritesBytesAndKeepsTimes) {
  write("flows.txt",
        "ip,nw_dst=10.0.0.2,actions=mod_dl_src:02:00:00:00:00:01,"
        "mod_dl_dst:02:00:00:00:00:22,dec_ttl,output:2\n"
        "ipv6,ipv6_dst=2001:db8::/32,actions=dec_ttl,output:3\n"
        "arp,actions=drop\n");
  capture("in.pcap",
          {row(kStart + 1, udp(53)),
           row(kStart + 22, Frame::eth().ipv6(kHost61, kHost62).tcp(7, 80)),
           row(kStart + 333, Frame::eth().arp(kHost1, kHost2)),
           row(kStart + 4444, udp(54).ttl(9))});
  replayWell("--flows flows.txt --in 1=in.pcap --out-dir out");

  const auto routed = [](uint16_t port, uint8_t ttl) {
    return Frame::eth(kNextHop, kRouter)
        .ipv4(kHost1, kHost2)
        .udp(5, port)
        .payload("payload")
        .ttl(ttl);
  };
  EXPECT_THAT(written("out/port-2.pcap"),
              ElementsAre(row(kStart + 1, routed(53, 63)),
                          row(kStart + 4444, routed(54, 8))));
  EXPECT_THAT(
      written("out/port-3.pcap"),
      ElementsAre(row(kStart + 22,
                      Frame::eth().ipv6(kHost61, kHost62).tcp(7, 80).ttl(63))));
  // Only gates that received packets have a file, and there is nothing else.
  std::set<std::string> files;
  for (const auto& file : std::filesystem::directory_iterator(folder_ / "out"))
    files.insert(file.path().filename());
  EXPECT_THAT(files, ElementsAre("port-2.pcap", "port-3.pcap"));

  EXPECT_EQ(packetsOf("flows.txt:1"), 2);
  EXPECT_EQ(packetsOf("flows.txt:2"), 1);
  EXPECT_EQ(packetsOf("flows.txt:3"), 1);
  EXPECT_EQ(table(0)["numFlows"], 3);      // two, and the guard of one
  EXPECT_EQ(table(0)["numIpv6Flows"], 2);  // one and its guard
  EXPECT_EQ(table(0)["dropActions"], 1);
  EXPECT_EQ(table(0)["matched"], 4);
  EXPECT_EQ(port(1)["packetsIn"], 4);
  EXPECT_EQ(port(2)["packetsOut"], 2);
  EXPECT_EQ(port(2)["bytesOut"], 2 * udp(53).bytes().size());
  EXPECT_EQ(account("packetsIn"), 4);
  EXPECT_EQ(account("output"), 3);
  EXPECT_EQ(account("dropsByFlow"), 1);
}

struct FormatCase {
  const char* name;
  CaptureFormat format;
  uint64_t resolution;
};

class ReplayFormats : public ReplayCommand,
                      public testing::WithParamInterface<FormatCase> {};

TEST_P(ReplayFormats, EveryCaptureFormatIsTaken) {
  write("flows.txt", "actions=output:2\n");
  const std::vector<CaptureRow> rows = {row(kStart + 123'456'789, udp(1)),
                                        row(kStart + 999'999'999, udp(2))};
  capture("in", rows, GetParam().format);
  replayWell("--flows flows.txt --in 1=in --out-dir .");
  std::vector<CaptureRow> expected = rows;
  for (CaptureRow& one : expected) one.ns -= one.ns % GetParam().resolution;
  EXPECT_EQ(written("port-2.pcap"), expected);
}

INSTANTIATE_TEST_SUITE_P(
    Captures, ReplayFormats,
    testing::Values(FormatCase{"PcapMicro", CaptureFormat::kPcapMicro, 1000},
                    FormatCase{"PcapNano", CaptureFormat::kPcapNano, 1},
                    FormatCase{"PcapNg", CaptureFormat::kPcapNg, 1000},
                    FormatCase{"PcapNgNano", CaptureFormat::kPcapNgNano, 1}),
    [](const auto& one) { return one.param.name; });

// The module emits table by table; what leaves on a gate is in the order of the
// packets that caused it all the same.
TEST_F(ReplayCommand, OutputsKeepTheOrderOfTheirInputs) {
  write("flows.txt",
        "priority=2,udp,tp_dst=1,actions=output:9\n"
        "priority=1,udp,tp_dst=2,actions=output:9,goto_table:1\n"
        "priority=0,actions=goto_table:3\n"
        "table=1,actions=mod_dl_dst:02:00:00:00:00:22,output:9\n"
        "table=3,actions=output:9\n");
  std::vector<CaptureRow> rows, expected;
  for (uint64_t i = 0; i < 200; i++) {
    const auto dport = static_cast<uint16_t>(1 + i * 7 % 3);
    const auto frame = [&](const Mac& dst) {
      return Frame::eth(dst)
          .ipv4(kHost1, kHost2)
          .udp(static_cast<uint16_t>(i), dport);
    };
    rows.push_back(row(kStart + i / 5, frame(kDstMac)));
    expected.push_back(rows.back());
    if (dport == 2) {
      expected.push_back(row(kStart + i / 5, frame(kNextHop)));
    }
  }
  capture("in.pcap", rows);
  replayWell("--flows flows.txt --in 1=in.pcap --out-dir out");
  EXPECT_EQ(written("out/port-9.pcap"), expected);
}

TEST_F(ReplayCommand, ReadsAPipe) {
  write("flows.txt", "actions=output:2\n");
  const std::vector<CaptureRow> rows = {row(1, udp(1)), row(2, udp(2))};
  capture("in.pcap", rows);
  replayWell("--flows flows.txt --in 1=/dev/stdin --out-dir out",
             "cat in.pcap |");
  EXPECT_EQ(written("out/port-2.pcap"), rows);
  replay("--flows flows.txt --in 1=/dev/stdin --workers 2", "cat in.pcap |");
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(stderr_,
            "/dev/stdin: is a pipe, which only one worker can read; leave out "
            "--workers\n");
}

TEST_F(ReplayCommand, MergesCapturesByTime) {
  write("flows.txt",
        "in_port=1,actions=output:3\nin_port=2,actions=output:3\n");
  capture("a.pcap", {row(10, udp(1)), row(30, udp(3))});
  capture("b.pcap", {row(20, udp(2)), row(40, udp(4))});
  replayWell("--flows flows.txt --in 1=a.pcap 2=b.pcap --out-dir out");
  EXPECT_THAT(written("out/port-3.pcap"),
              ElementsAre(row(10, udp(1)), row(20, udp(2)), row(30, udp(3)),
                          row(40, udp(4))));
  EXPECT_EQ(packetsOf("flows.txt:1"), 2);
  EXPECT_EQ(packetsOf("flows.txt:2"), 2);
}

TEST_F(ReplayCommand, InPortIsKeptFromTableToTable) {
  write("flows.txt",
        "actions=goto_table:7\n"
        "table=7,in_port=1,actions=output:1,output:2,output:3\n"
        "table=7,in_port=2,actions=in_port\n"
        "table=7,in_port=3,actions=flood\n");
  capture("a.pcap", {row(1, udp(1))});
  capture("b.pcap", {row(2, udp(2))});
  capture("c.pcap", {row(3, udp(3))});
  replayWell("--flows flows.txt --in 1=a.pcap 2=b.pcap 3=c.pcap --out-dir out");
  EXPECT_THAT(written("out/port-1.pcap"), ElementsAre(row(3, udp(3))));
  EXPECT_THAT(written("out/port-2.pcap"),
              ElementsAre(row(1, udp(1)), row(2, udp(2)), row(3, udp(3))));
  EXPECT_THAT(written("out/port-3.pcap"), ElementsAre(row(1, udp(1))));
  EXPECT_EQ(account("copiesOut"), 5);
}

TEST_F(ReplayCommand, ControllerGetsItsHeader) {
  write("flows.txt", "actions=CONTROLLER\n");
  capture("in.pcap", {row(7, udp(1))});
  replayWell("--flows flows.txt --in 4=in.pcap --out-dir out");
  const Bytes frame = udp(1).bytes();
  Bytes expected(frame.begin(), frame.begin() + 12);
  const Bytes header = fromHex("81 31 00 00 00 01 00 00 00 00");
  expected.insert(expected.end(), header.begin(), header.end());
  expected.insert(expected.end(), frame.begin(), frame.end());
  expected.resize(expected.size() + 4);
  EXPECT_THAT(written("out/controller.pcap"),
              ElementsAre(CaptureRow{7, text(expected), 0}));
  EXPECT_EQ(port(0)["packetsOut"], 1);
  EXPECT_THAT(stdout_, HasSubstr("1 copy out = 1 to the controller\n"));
}

TEST_F(ReplayCommand, NamesEveryCauseOfADrop) {
  write("flows.txt",
        "priority=9,udp,tp_dst=1,actions=drop\n"
        "priority=8,udp,tp_dst=2,actions=dec_ttl,output:2\n"
        "priority=7,udp,tp_dst=3,actions=goto_table:1\n"
        "priority=6,udp,tp_dst=4,actions=goto_table:2\n"
        "table=2,tcp,actions=drop\n");
  capture("in.pcap", {row(1, udp(1)), row(2, udp(2).ttl(1)),
                      row(3, udp(2).ttl(0)), row(4, udp(3)), row(5, udp(4)),
                      row(6, udp(5)), row(7, udp(2).ttl(2))});
  replayWell("--flows flows.txt --in 1=in.pcap --out-dir out");
  EXPECT_EQ(account("dropsByFlow"), 1);
  EXPECT_EQ(account("dropsTtlExpired"), 2);
  EXPECT_EQ(account("dropsEmptyTable"), 1);
  EXPECT_EQ(account("tableMisses"), 2);
  EXPECT_EQ(account("output"), 1);
  EXPECT_EQ(table(0)["tableMisses"], 1);
  EXPECT_EQ(table(0)["dropActions"], 3);  // the module sees guards as drops
  EXPECT_EQ(table(0)["dropsTtlExpired"], 2);
  EXPECT_EQ(table(1)["dropsEmptyTable"], 1);
  EXPECT_EQ(table(2)["tableMisses"], 1);
  // What its guard dropped has matched the flow.
  EXPECT_EQ(packetsOf("flows.txt:2"), 3);
  EXPECT_THAT(stdout_,
              HasSubstr("7 packets in = 1 output + 1 dropped by a flow + 2 "
                        "with their TTL expired + 1 in a table without flows "
                        "+ 2 table misses\n"));
  EXPECT_THAT(written("out/port-2.pcap"), ElementsAre(row(7, udp(2).ttl(1))));
}

// A flow that a command list sends to a table without a classifier: the module
// frees the batch and counts it as one, whatever its size.
TEST_F(ReplayCommand, CountsThePacketsOfFailedBatches) {
  write("commands.json", R"([
    {"updateFlows": {"adds": [
        {"flowId": 7, "priority": 5, "match": {"fields": {"ipProto": true},
                                               "values": {"ipProto": 17}},
         "action": {"fields": {"gotoTbl": true}, "values": {"nextTbl": 4}}},
        {"flowId": 8, "priority": 1, "action": {
            "fields": {"setOutputPort": true}, "values": {"ogate": [1, 2]}}},
        {"flowId": 9, "priority": 2, "match": {"fields": {"ipProto": true},
                                               "values": {"ipProto": 6}}},
        {"flowId": 10, "priority": 9}],
      "deletes": [{"flowId": 10}]}},
    {"getStats": {"tableId": 0}}])");
  capture("in.pcap", {row(1, udp(1)), row(2, udp(2)),
                      row(3, Frame::eth().arp(kHost1, kHost2)),
                      row(4, Frame::eth().ipv4(kHost1, kHost2).tcp(1, 2))});
  replayWell("--flows commands.json --in 1=in.pcap --out-dir out");
  ASSERT_THAT(stats_["replies"], SizeIs(1));
  EXPECT_EQ(stats_["replies"][0]["where"], "commands.json:12");
  EXPECT_EQ(stats_["replies"][0]["getStats"]["numFlows"], 3);
  EXPECT_THAT(stdout_, HasSubstr("Replies to getStats\n"
                                 "  IPv4 IPv6 failed updates  asked for by\n"
                                 "     3    0              0  "
                                 "commands.json:12\n"));
  EXPECT_EQ(table(4)["batchDrops"], 1);
  EXPECT_EQ(table(4)["noClassifier"], 1);
  EXPECT_EQ(table(4)["batchDropPackets"], 2);
  EXPECT_EQ(table(0)["noOutputDrops"], 1);
  EXPECT_EQ(account("batchDropPackets"), 2);
  EXPECT_EQ(account("noOutputDrops"), 1);
  EXPECT_EQ(account("output"), 1);
  EXPECT_EQ(account("copiesOut"), 2);
  ASSERT_THAT(stats_["flows"], SizeIs(3));
  EXPECT_EQ(stats_["flows"][0]["flowId"], 7);
  EXPECT_EQ(stats_["flows"][0]["packets"], 2);
  EXPECT_THAT(written("out/port-1.pcap"), SizeIs(1));
}

TEST_F(ReplayCommand, CountsCopiesForUnconnectedPorts) {
  write("flows.txt", "actions=output:2,output:3\n");
  capture("in.pcap", {row(1, udp(1)), row(2, udp(2))});
  replay("--flows flows.txt --in 1=in.pcap --out-dir out --ports 2,5");
  EXPECT_EQ(status_, 0);
  EXPECT_EQ(stderr_,
            "flows.txt:1: note: output:3: port 3 is not connected, what is "
            "sent there goes nowhere\n");
  EXPECT_TRUE(account("nothingLost")) << stdout_;
  EXPECT_THAT(written("out/port-2.pcap"), SizeIs(2));
  EXPECT_FALSE(exists("out/port-3.pcap"));
  EXPECT_EQ(account("copiesOut"), 4);
  EXPECT_EQ(account("copiesOnPorts"), 2);
  EXPECT_EQ(account("copiesUnconnected"), 2);
  EXPECT_TRUE(port(3).is_null());
  EXPECT_EQ(port(5)["packetsOut"], 0);
}

// 64 copies in each of 31 tables for each of 32 packets: more than there are
// buffers. The copies that cannot be made are missing, and nothing else.
TEST_F(ReplayCommand, AccountsForADryPool) {
  nlohmann::json commands = nlohmann::json::array();
  for (int table = 0; table < 31; table++) {
    nlohmann::json action = {
        {"fields", {{"setOutputPort", true}, {"gotoTbl", true}}},
        {"values",
         {{"ogate", std::vector<int>(64, 1)}, {"nextTbl", table + 1}}}};
    commands.push_back(
        {{"updateFlows",
          {{"tableId", table},
           {"adds", {{{"flowId", 1}, {"priority", 1}, {"action", action}}}}}}});
  }
  commands.push_back(
      {{"updateFlows",
        {{"tableId", 31}, {"adds", {{{"flowId", 1}, {"priority", 1}}}}}}});
  write("commands.json", commands.dump());
  std::vector<CaptureRow> rows;
  for (uint64_t i = 0; i < 64; i++) rows.push_back(row(i, udp(1)));
  capture("in.pcap", rows);
  replayWell("--flows commands.json --in 2=in.pcap");
  EXPECT_EQ(account("packetsIn"), 64);
  EXPECT_GT(account("copiesNotMade"), 0);
  EXPECT_GT(account("poolDryStopped"), 0);
  EXPECT_GT(account("copiesOnPorts"), 2 * 16000);
  EXPECT_EQ(account("buffersInUse"), 0);
  EXPECT_THAT(stdout_, HasSubstr("copies were not made: the packet pool was "
                                 "dry\n"));
}

TEST_F(ReplayCommand, LargeAndShortFramesPass) {
  write("flows.txt", "actions=goto_table:1\ntable=1,actions=output:2\n");
  std::string large = text(udp(1).bytes());
  large.resize(9000, 'x');
  const std::vector<CaptureRow> rows = {
      {1, large, 0}, {2, "short", 0}, row(3, udp(1))};
  capture("in.pcap", rows);
  replayWell("--flows flows.txt --in 1=in.pcap --out-dir out");
  EXPECT_EQ(written("out/port-2.pcap"), rows);
}

TEST_F(ReplayCommand, ReportsTheSameInEachForm) {
  write("flows.txt", "priority=5,udp,tp_dst=1,actions=output:2  # web\n");
  capture("in.pcap", {row(1, udp(1)), row(2, udp(2))});
  replayWell("--flows flows.txt --in 1=in.pcap");
  EXPECT_EQ(
      stdout_,
      "Tables: flows of each family, packets, and why packets ended "
      "there\n"
      "  table IPv4 IPv6 packets matched missed dropped TTL empty no "
      "output failed\n"
      "      0    1    0       2       1      1       0   0     0         "
      "0      0\n"
      "\n"
      "Flows\n"
      "  packets bytes  flow\n"
      "        1    49  priority=5,udp,tp_dst=1,actions=output:2\n"
      "\n"
      "Ports\n"
      "        port packets in bytes in packets out bytes out  written "
      "to\n"
      "  controller          0        0           0         0\n"
      "           1          2       98           0         0\n"
      "           2          0        0           1        49\n"
      "\n"
      "Accounting\n"
      "  2 packets in = 1 output + 1 table miss\n"
      "  1 copy out = 1 on port 2\n"
      "  nothing lost\n");
  const nlohmann::json stats = stats_;
  replayWell("--flows flows.txt --in 1=in.pcap --json");
  EXPECT_EQ(nlohmann::json::parse(stdout_), stats);
  EXPECT_EQ(stats_, stats);
  for (const char* name :
       {"numFlows", "numIpv6Flows", "updateFailures", "reserved1", "reserved2",
        "aclCreateFailures", "aclAddRulesFailures", "aclBuildFailures",
        "classifyErrors", "noAclCtx", "noClassifier", "batchDrops",
        "tableMisses", "spareCounter", "dropActions", "noOutputDrops"}) {
    EXPECT_TRUE(table(0)[name].is_number()) << name;
  }
}

// Gates that get nothing this time do not keep the packets of the last time.
TEST_F(ReplayCommand, ReplacesTheOutputsOfAnEarlierRun) {
  write("two.txt", "actions=output:2\n");
  write("three.txt", "actions=output:3\n");
  capture("in.pcap", {row(1, udp(1))});
  replayWell("--flows two.txt --in 1=in.pcap --out-dir out --ports 2,3");
  EXPECT_TRUE(exists("out/port-2.pcap"));
  replayWell("--flows three.txt --in 1=in.pcap --out-dir out --ports 2,3");
  EXPECT_FALSE(exists("out/port-2.pcap"));
  EXPECT_TRUE(exists("out/port-3.pcap"));
}

TEST_F(ReplayCommand, WorkersChangeNothing) {
  write("flows.txt",
        "priority=9,udp,tp_dst=3,actions=drop\n"
        "priority=8,udp,tp_dst=4,actions=dec_ttl,output:2\n"
        "priority=1,ip,actions=output:2,CONTROLLER,goto_table:1\n"
        "table=1,ip,nw_dst=10.0.0.0/28,actions=flood\n");
  std::vector<CaptureRow> a, b;
  for (uint64_t i = 0; i < 3000; i++) {
    Frame frame = Frame::eth()
                      .ipv4(kHost1, kHost2 + static_cast<uint32_t>(i % 31))
                      .udp(static_cast<uint16_t>(i), i % 7)
                      .ttl(static_cast<uint8_t>(i % 4));
    (i % 3 == 0 ? a : b).push_back(row(kStart + i / 2, frame));
  }
  capture("a.pcap", a);
  capture("b.pcap", b);
  const std::string arguments =
      "--flows flows.txt --in 1=a.pcap 2=b.pcap 3=b.pcap ";
  replayWell(arguments + "--out-dir one --workers 1");
  const nlohmann::json one = stats_;
  for (const std::string workers : {"2", "5"}) {
    replayWell(arguments + "--out-dir many --workers " + workers);
    for (const std::string file :
         {"controller.pcap", "port-1.pcap", "port-2.pcap", "port-3.pcap"}) {
      EXPECT_TRUE(readFile(folder_ / "many" / file) ==
                  readFile(folder_ / "one" / file))
          << file << " differs with " << workers << " workers";
    }
    EXPECT_EQ(stats_["flows"], one["flows"]);
    EXPECT_EQ(stats_["tables"], one["tables"]);
    EXPECT_EQ(stats_["accounting"], one["accounting"]);
  }
}

}  // namespace
}  // namespace openflow_test
