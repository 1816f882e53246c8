// SPDX-License-Identifier: BSD-3-Clause
//
// What a replay says about counts that agree, and about those that do not.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <vector>

#include "switch/replay/report.h"
#include "tests/switch/replay_command.h"

namespace ofswitch {
namespace {

using openflow_test::Frame;
using openflow_test::ReplayCommand;
using testing::HasSubstr;
using testing::IsEmpty;

ReplayCounts::Rule rule(uint8_t table, uint64_t packets) {
  ReplayCounts::Rule rule;
  rule.table = table;
  rule.packets = packets;
  return rule;
}

// 100 packets on port 1: 60 go on to table 1 and leave it on port 2, 30 drop,
// 10 miss.
ReplayCounts counts() {
  ReplayCounts counts;
  ReplayCounts::Rule on = rule(0, 60);
  on.action.set_gototbl(true);
  on.nextTable = 1;
  ReplayCounts::Rule drop = rule(0, 30);
  drop.action.set_setoutputdrop(true);
  ReplayCounts::Rule out = rule(1, 60);
  out.action.set_setoutputport(true);
  out.minOutputs = out.maxOutputs = 1;
  counts.rules = {on, drop, out};
  counts.tables[0].set_tablemisses(10);
  counts.tables[0].set_dropactions(30);
  counts.ports.resize(2);
  counts.ports[0].port = 1;
  counts.ports[0].packetsIn = 100;
  counts.ports[1].port = 2;
  counts.ports[1].sentTo = counts.ports[1].packetsOut = 60;
  counts.dropped = 160;
  return counts;
}

struct Spoiled {
  const char* name;
  std::function<void(ReplayCounts*)> spoil;
  std::vector<std::string> sentences;
};

void PrintTo(const Spoiled& row, std::ostream* out) { *out << row.name; }

const Spoiled kSpoiled[] = {
    {"None", [](ReplayCounts*) {}, {}},
    {"OneMoreIn",
     [](ReplayCounts* c) { c->ports[0].packetsIn++; },
     {"1 packet did not reach the next table, but only 0 copies failed"}},
    {"OneFewerIn",
     [](ReplayCounts* c) { c->ports[0].packetsIn--; },
     {"table 0: 10 packets missed, but only 9 of 99 are left",
      "61 copies for output, but the flows ask for 60 to 60"}},
    {"MoreMatchedThanEntered",
     [](ReplayCounts* c) { c->rules[2].packets += 2; },
     {"table 1: 62 packets matched, but only 60 of 60 are left",
      "100 packets in, but 102 of them are accounted for",
      "162 packets handled, but only 160 ended",
      "60 copies for output, but the flows ask for 62 to 62"}},
    {"LostBeforeASink",
     [](ReplayCounts* c) { c->ports[1].packetsOut--; },
     {"port 2: 60 packets sent, but 59 arrived",
      "59 copies for output, but the flows ask for 60 to 60"}},
    {"TableCountsDrops",
     [](ReplayCounts* c) { c->tables[0].set_dropactions(31); },
     {"table 0: dropActions is 31, but its flows say 30"}},
    {"TableCountsNoOutputs",
     [](ReplayCounts* c) { c->tables[1].set_nooutputdrops(3); },
     {"table 1: noOutputDrops is 3, but its flows say 0"}},
    {"BuffersOut",
     [](ReplayCounts* c) { c->buffersInUse = 2; },
     {"2 packet buffers did not come back to the pool"}},
};

class Sentences : public testing::TestWithParam<Spoiled> {};

TEST_P(Sentences, SayWhatDoesNotAddUp) {
  ReplayCounts spoiled = counts();
  GetParam().spoil(&spoiled);
  const Account account = makeAccount(spoiled);
  EXPECT_EQ(account.discrepancies, GetParam().sentences);
  const std::string text = textReport({}, spoiled, account);
  for (const std::string& sentence : GetParam().sentences) {
    EXPECT_THAT(text, HasSubstr("  DOES NOT ADD UP: " + sentence + "\n"));
  }
  const bool closes = GetParam().sentences.empty();
  EXPECT_EQ(text.find("  nothing lost\n") != std::string::npos, closes);
  const auto json = nlohmann::json::parse(jsonReport({}, spoiled, account));
  EXPECT_EQ(json["accounting"]["nothingLost"], closes);
  EXPECT_EQ(json["accounting"]["discrepancies"], GetParam().sentences);
}

INSTANTIATE_TEST_SUITE_P(Counts, Sentences, testing::ValuesIn(kSpoiled),
                         [](const auto& one) { return one.param.name; });

// With two workers the table has lost three of its misses; the packets tell.
TEST(Account, TrustsPacketsMoreThanTablesOfManyWorkers) {
  ReplayCounts lossy = counts();
  lossy.tableCountsExact = false;
  lossy.tables[0].set_tablemisses(7);
  lossy.tables[0].set_dropactions(28);
  Account account = makeAccount(lossy);
  EXPECT_THAT(account.discrepancies, IsEmpty());
  EXPECT_EQ(account.misses, 10u);
  // Of failed batches nothing else tells how many packets they were.
  lossy.tables[0].set_batchdrops(1);
  account = makeAccount(lossy);
  EXPECT_EQ(account.misses, 7u);
  EXPECT_EQ(account.batchDropPackets, 3u);
}

TEST(TextReport, SaysHowManyCopiesWereNotMade) {
  Account account = makeAccount(counts());
  account.outputsNotCopied = 1;
  EXPECT_THAT(textReport({}, counts(), account),
              HasSubstr("  1 copy was not made: the packet pool was dry\n"));
  account.outputsNotCopied = 2;
  EXPECT_THAT(textReport({}, counts(), account),
              HasSubstr("  2 copies were not made: the packet pool was dry\n"));
  EXPECT_THAT(textReport({}, {}, makeAccount({})),
              HasSubstr("  0 packets in = 0\n  0 copies out = 0\n"));
}

// Standard output alone is enough: no file is asked for.
TEST_F(ReplayCommand, WritesItsReportWhereItIsToldTo) {
  write("good.txt", "actions=output:2\n");
  capture("in.pcap", {row(1, Frame::eth().ipv4(1, 2).udp(3, 4))});
  replay("--flows good.txt --in 1=in.pcap --json");
  EXPECT_EQ(status_, 0) << stderr_;
  EXPECT_EQ(stdout_, openflow_test::readFile(folder_ / "stats.json"));
  EXPECT_EQ(account("packetsIn"), 1);
  write("controller.pcap", "old");
  replayWell("--flows good.txt --in 1=in.pcap --out-dir .");
  EXPECT_EQ(written("port-2.pcap").size(), 1u);
}

}  // namespace
}  // namespace ofswitch
