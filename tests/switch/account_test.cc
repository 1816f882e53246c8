// SPDX-License-Identifier: BSD-3-Clause
//
// The account of a replay closes when the counts agree, and for no single count
// that is off by one.
#include "switch/replay/account.h"

#include <gtest/gtest.h>

#include <functional>

namespace ofswitch {
namespace {

using Rule = ReplayCounts::Rule;

Rule rule(uint8_t table, uint64_t packets) {
  Rule rule;
  rule.table = table;
  rule.packets = packets;
  return rule;
}

// 100 packets on port 1. Table 0: 60 go to table 1, 20 leave on port 2 and 3,
// 10 drop, 5 expire, 5 miss. Table 1: 40 leave on port 2, 20 lack an output.
ReplayCounts consistent() {
  ReplayCounts counts;
  Rule on = rule(0, 60);
  on.action.set_gototbl(true);
  on.nextTable = 1;
  Rule both = rule(0, 20);
  both.action.set_setoutputport(true);
  both.minOutputs = both.maxOutputs = 2;
  Rule drop = rule(0, 10);
  drop.action.set_setoutputdrop(true);
  Rule guard = drop;
  guard.kind = PolicyRule::Kind::kGuard;
  guard.packets = 5;
  Rule out = rule(1, 40);
  out.action.set_setoutputflood(true);
  out.minOutputs = 1;
  out.maxOutputs = 2;
  counts.rules = {on, both, drop, guard, out, rule(1, 20)};
  counts.tables[0].set_tablemisses(5);
  counts.tables[0].set_dropactions(15);
  counts.tables[1].set_nooutputdrops(20);
  counts.ports.resize(3);
  for (uint16_t i = 0; i < 3; i++) counts.ports[i].port = i + 1;
  counts.ports[0].packetsIn = 100;
  counts.ports[1].sentTo = counts.ports[1].packetsOut = 60;
  counts.ports[2].sentTo = counts.ports[2].packetsOut = 18;
  counts.dropped = 160 + 2;  // all that tables handled, and two copies for
                             // a port that leads nowhere
  return counts;
}

// The table counts the action; the packet has left all the same.
TEST(Account, ADropBesideAnOutputEndsNoPacket) {
  ReplayCounts counts = consistent();
  for (Rule& rule : counts.rules) {
    if (rule.action.setoutputport()) rule.action.set_setoutputdrop(true);
  }
  counts.tables[0].set_dropactions(15 + 20);
  const Account account = makeAccount(counts);
  EXPECT_TRUE(account.closes()) << account.discrepancies[0];
  EXPECT_EQ(account.sent, 60u);
  EXPECT_EQ(account.dropActions, 10u);
  EXPECT_EQ(account.tables[0].dropActions, 10u + 20);
}

TEST(Account, Closes) {
  const Account account = makeAccount(consistent());
  EXPECT_TRUE(account.closes()) << account.discrepancies[0];
  EXPECT_EQ(account.packetsIn, 100u);
  EXPECT_EQ(account.sent, 60u);
  EXPECT_EQ(account.dropActions, 10u);
  EXPECT_EQ(account.ttlExpired, 5u);
  EXPECT_EQ(account.misses, 5u);
  EXPECT_EQ(account.noOutput, 20u);
  EXPECT_EQ(account.outputs, 80u);
  EXPECT_EQ(account.packetsOut, 78u);
  EXPECT_EQ(account.unconnected, 2u);
  EXPECT_EQ(account.tables[1].entered, 60u);
}

// A flood to two ports leaves one or two copies.
TEST(Account, ClosesForAllTheCopiesThatFlowsMayMake) {
  ReplayCounts counts = consistent();
  counts.dropped += 40;
  const Account account = makeAccount(counts);
  EXPECT_TRUE(account.closes()) << account.discrepancies[0];
  EXPECT_EQ(account.unconnected, 42u);
}

struct Spoiled {
  const char* name;
  std::function<void(ReplayCounts*)> spoil;
};

class SpoiledAccount : public testing::TestWithParam<Spoiled> {};

TEST_P(SpoiledAccount, DoesNotClose) {
  ReplayCounts counts = consistent();
  GetParam().spoil(&counts);
  EXPECT_FALSE(makeAccount(counts).closes());
}

INSTANTIATE_TEST_SUITE_P(
    Counts, SpoiledAccount,
    testing::Values(
        Spoiled{"OneMoreIn", [](auto* c) { c->ports[0].packetsIn++; }},
        Spoiled{"OneFewerIn", [](auto* c) { c->ports[0].packetsIn--; }},
        Spoiled{"OneMoreMatched", [](auto* c) { c->rules[0].packets++; }},
        Spoiled{"OneFewerMatched", [](auto* c) { c->rules[4].packets--; }},
        Spoiled{"OneMoreMiss",
                [](auto* c) { c->tables[0].set_tablemisses(6); }},
        Spoiled{"OneFewerMiss",
                [](auto* c) { c->tables[0].set_tablemisses(4); }},
        Spoiled{"OneMoreDrop",
                [](auto* c) { c->tables[0].set_dropactions(16); }},
        Spoiled{"OneFewerWithoutOutput",
                [](auto* c) { c->tables[1].set_nooutputdrops(19); }},
        Spoiled{"LostBeforeASink", [](auto* c) { c->ports[1].packetsOut--; }},
        Spoiled{"MoreInASinkThanWasSent",
                [](auto* c) { c->ports[1].sentTo--; }},
        Spoiled{"HandledButNotEnded", [](auto* c) { c->dropped = 159; }},
        Spoiled{"TooManyOutputs", [](auto* c) { c->dropped += 41; }},
        Spoiled{"TooFewOutputs",
                [](auto* c) {
                  c->dropped -= 2;
                  c->ports[2].sentTo = c->ports[2].packetsOut = 0;
                  c->ports[1].sentTo = c->ports[1].packetsOut = 59;
                }},
        Spoiled{"BufferNotBack", [](auto* c) { c->buffersInUse = 1; }}),
    [](const auto& one) { return one.param.name; });

TEST(Account, PacketsOfAFailedBatchAreWhatNothingElseExplains) {
  ReplayCounts counts = consistent();
  counts.rules.resize(4);
  counts.tables[1].Clear();
  counts.tables[1].set_batchdrops(3);
  counts.ports[1].sentTo = counts.ports[1].packetsOut = 20;
  counts.dropped = 100 + 2;
  const Account account = makeAccount(counts);
  EXPECT_TRUE(account.closes()) << account.discrepancies[0];
  EXPECT_EQ(account.batchDropPackets, 60u);
}

// A packet that the dry pool kept from its next table ended there.
TEST(Account, FailedCopiesExplainMissingPackets) {
  ReplayCounts counts = consistent();
  counts.failedCopies = 4;
  counts.rules[5].packets -= 3;
  counts.tables[1].set_nooutputdrops(17);
  counts.dropped -= 3;
  const Account account = makeAccount(counts);
  EXPECT_TRUE(account.closes()) << account.discrepancies[0];
  EXPECT_EQ(account.notCopied, 3u);
  EXPECT_EQ(account.outputsNotCopied, 1u);
  counts.failedCopies = 2;
  EXPECT_FALSE(makeAccount(counts).closes());
}

// With several workers a table may lose counts, but no packets.
TEST(Account, LostTableCountsDoNotMatterWithManyWorkers) {
  ReplayCounts counts = consistent();
  counts.tableCountsExact = false;
  counts.tables[0].set_tablemisses(3);
  counts.tables[0].set_dropactions(11);
  const Account account = makeAccount(counts);
  EXPECT_TRUE(account.closes()) << account.discrepancies[0];
  EXPECT_EQ(account.misses, 5u);
}

}  // namespace
}  // namespace ofswitch
