// SPDX-License-Identifier: BSD-3-Clause
//
// Reports of a replay whose numbers all differ.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "switch/replay/account.h"
#include "switch/replay/policy.h"
#include "switch/replay/report.h"

namespace ofswitch {
namespace {

using nlohmann::json;
using testing::HasSubstr;

class ReplayReport : public testing::Test {
 protected:
  ReplayReport() {
    PolicyRule rule;
    rule.table = 3;
    rule.family = quil::pb::OPENFLOW_TYPE_IPV6;
    rule.flowId = 4;
    rule.priority = 5;
    PolicyRule guard = rule;
    guard.kind = PolicyRule::Kind::kGuard;
    PolicyRule other;
    other.flowId = 6;
    policy_.rules = {rule, guard, other};
    policy_.flows = {{"FLOW", "f.txt:1", {0, 1}}, {"OTHER", "f.txt:2", {2}}};
    counts_.rules.resize(3);
    counts_.rules[0].packets = 7;
    counts_.rules[0].bytes = 700;
    counts_.rules[1].packets = 2;
    counts_.rules[1].bytes = 240;
    counts_.ports = {{0, 0, 0, 11, 11, 1100, "c.pcap"},
                     {8, 12, 1201, 13, 13, 1301, ""}};
    counts_.tables[3].set_numflows(21);
    counts_.tables[3].set_numipv6flows(22);
    counts_.tables[3].set_tablemisses(99);  // of a table that lost counts
    counts_.replies.resize(1);
    counts_.replies[0].where = "c.json:9";
    counts_.replies[0].stats.set_numflows(31);
    counts_.replies[0].stats.set_numipv6flows(32);
    counts_.replies[0].stats.set_updatefailures(33);
    account_.tables[3] = {41, 42, 43, 44, 45, 46, 47, 48, 49};
    account_.packetsIn = 51;
    account_.sent = 52;
    account_.dropActions = 53;
    account_.ttlExpired = 54;
    account_.emptyTable = 55;
    account_.noOutput = 56;
    account_.misses = 57;
    account_.batchDropPackets = 58;
    account_.notCopied = 59;
    account_.outputs = 60;
    account_.packetsOut = 61;
    account_.unconnected = 62;
    account_.outputsNotCopied = 63;
    account_.buffersInUse = 64;
  }

  json report() const {
    return json::parse(jsonReport(policy_, counts_, account_));
  }
  std::string text() const { return textReport(policy_, counts_, account_); }

  Policy policy_;
  ReplayCounts counts_;
  Account account_;
};

TEST_F(ReplayReport, HasEachNumberUnderItsNameInJson) {
  const json all = report();
  EXPECT_EQ(all["flows"], json({{{"flow", "FLOW"},
                                 {"where", "f.txt:1"},
                                 {"tableId", 3},
                                 {"flowType", "OPENFLOW_TYPE_IPV6"},
                                 {"flowId", 4},
                                 {"priority", 5},
                                 {"packets", 9},
                                 {"bytes", 940},
                                 {"ttlExpired", 2}},
                                {{"flow", "OTHER"},
                                 {"where", "f.txt:2"},
                                 {"tableId", 0},
                                 {"flowType", "OPENFLOW_TYPE_IPV4"},
                                 {"flowId", 6},
                                 {"priority", 0},
                                 {"packets", 0},
                                 {"bytes", 0},
                                 {"ttlExpired", 0}}}));
  EXPECT_EQ(all["ports"], json({{{"port", 0},
                                 {"packetsIn", 0},
                                 {"bytesIn", 0},
                                 {"packetsOut", 11},
                                 {"bytesOut", 1100},
                                 {"file", "c.pcap"}},
                                {{"port", 8},
                                 {"packetsIn", 12},
                                 {"bytesIn", 1201},
                                 {"packetsOut", 13},
                                 {"bytesOut", 1301},
                                 {"file", ""}}}));
  EXPECT_EQ(all["accounting"], json({{"packetsIn", 51},
                                     {"output", 52},
                                     {"dropsByFlow", 53},
                                     {"dropsTtlExpired", 54},
                                     {"dropsEmptyTable", 55},
                                     {"noOutputDrops", 56},
                                     {"tableMisses", 57},
                                     {"batchDropPackets", 58},
                                     {"poolDryStopped", 59},
                                     {"copiesOut", 60},
                                     {"copiesOnPorts", 61},
                                     {"copiesUnconnected", 62},
                                     {"copiesNotMade", 63},
                                     {"buffersInUse", 64},
                                     {"nothingLost", true},
                                     {"discrepancies", json::array()}}));
  ASSERT_EQ(all["replies"].size(), 1u);
  EXPECT_EQ(all["replies"][0]["where"], "c.json:9");
  EXPECT_EQ(all["replies"][0]["getStats"]["numFlows"], 31);
  EXPECT_EQ(all["replies"][0]["getStats"]["numIpv6Flows"], 32);
  EXPECT_EQ(all["replies"][0]["getStats"]["updateFailures"], 33);
  // What flows tell, where it is not what the table does.
  ASSERT_EQ(all["tables"].size(), 1u);
  const json table = all["tables"][0];
  const json told = {{"tableId", 3},           {"numFlows", 21},
                     {"numIpv6Flows", 22},     {"packets", 41},
                     {"matched", 42},          {"tableMisses", 43},
                     {"dropsByFlow", 44},      {"dropsTtlExpired", 45},
                     {"dropsEmptyTable", 46},  {"noOutputDrops", 47},
                     {"batchDropPackets", 48}, {"dropActions", 44 + 45 + 46}};
  for (const auto& [name, value] : told.items()) {
    EXPECT_EQ(table[name], value) << name;
  }
}

TEST_F(ReplayReport, HasEachNumberInItsColumn) {
  EXPECT_EQ(
      text(),
      "Replies to getStats\n"
      "  IPv4 IPv6 failed updates  asked for by\n"
      "    31   32             33  c.json:9\n"
      "\n"
      "Tables: flows of each family, packets, and why packets ended there\n"
      "  table IPv4 IPv6 packets matched missed dropped TTL empty no output "
      "failed\n"
      "      3   21   22      41      42     43      44  45    46        47 "
      "    48\n"
      "\n"
      "Flows\n"
      "  packets bytes  flow\n"
      "        9   940  FLOW\n"
      "        0     0  OTHER\n"
      "\n"
      "Ports\n"
      "        port packets in bytes in packets out bytes out  written to\n"
      "  controller          0        0          11      1100  c.pcap\n"
      "           8         12     1201          13      1301\n"
      "\n"
      "Accounting\n"
      "  51 packets in = 52 output + 53 dropped by a flow + 54 with their TTL "
      "expired + 55 in a table without flows + 56 without an output + 57 "
      "table misses + 58 freed with a failed batch + 59 stopped by a dry "
      "packet pool\n"
      "  60 copies out = 11 to the controller + 13 on port 8 + 62 for gates "
      "without a connection\n"
      "  63 copies were not made: the packet pool was dry\n"
      "  nothing lost\n");
}

TEST_F(ReplayReport, SaysWhatDoesNotAddUp) {
  account_ = {};
  account_.misses = 1;
  account_.packetsIn = 1;
  account_.outputsNotCopied = 1;
  account_.discrepancies = {"this", "that"};
  counts_.ports.clear();
  EXPECT_THAT(text(), HasSubstr("Accounting\n"
                                "  1 packet in = 1 table miss\n"
                                "  0 copies out = 0\n"
                                "  1 copy was not made: the packet pool was "
                                "dry\n"
                                "  DOES NOT ADD UP: this\n"
                                "  DOES NOT ADD UP: that\n"));
  EXPECT_EQ(report()["accounting"]["nothingLost"], false);
  EXPECT_EQ(report()["accounting"]["discrepancies"], json({"this", "that"}));
}

// Nobody reads a thousand lines that say 0.
TEST_F(ReplayReport, LeavesOutWhatMatchedNothingOfManyFlows) {
  policy_.flows.resize(1000, {"SAME", "f.txt:3", {2}});
  EXPECT_THAT(text(), HasSubstr("        0     0  SAME\n"));
  policy_.flows.resize(1001, {"SAME", "f.txt:3", {2}});
  EXPECT_THAT(text(), HasSubstr("Flows\n"
                                "  packets bytes  flow\n"
                                "        9   940  FLOW\n"
                                "  and 1000 flows that matched nothing\n"));
}

}  // namespace
}  // namespace ofswitch
