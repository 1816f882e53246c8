// SPDX-License-Identifier: BSD-3-Clause
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "switch/live/accounting.h"

namespace ofswitch {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Kind = RuleEnd::Kind;

// 100 packets: 40 miss in table 0, 30 are forwarded from there, 30 go to table
// 5, where 10 are dropped, 5 have expired and 15 are forwarded. Each forwarded
// packet leaves one copy, five of them for a port that does not exist.
SwitchCounts healthy() {
  SwitchCounts counts;
  SwitchCounts::Port port;
  port.number = 1;
  port.stats.rx_received = 103;
  port.stats.rx_packets = 100;
  port.stats.drops[bess::Index(bess::DropCause::kRxMissed)] = 3;
  port.stats.tx_entered = 38;
  port.stats.tx_packets = 36;
  port.stats.drops[bess::Index(bess::DropCause::kTxQueueFull)] = 2;
  port.gatePackets = 38;
  counts.ports = {port};
  counts.controller.packets = 2;
  counts.controllerGatePackets = 2;
  counts.matched = {{{0, {Kind::kMissed}}, 40},    {{0, {Kind::kSent}}, 30},
                    {{0, {Kind::kGoto, 5}}, 30},   {{5, {Kind::kDropped}}, 10},
                    {{5, {Kind::kTtlExpired}}, 5}, {{5, {Kind::kSent}}, 15}};
  counts.matchedLater = counts.matched;
  counts.deadEnds = 100 + 30 + 5;
  counts.exact = true;
  return counts;
}

// Of a switch that is read for the first time, twice at the same moment.
SwitchAccount accountOf(SwitchCounts counts) {
  MissingPackets missing;
  counts.matchedLater = counts.matched;
  return makeSwitchAccount(counts, &missing);
}

uint64_t drop(const SwitchAccount& account, SwitchDrop cause) {
  return account.drops[static_cast<size_t>(cause)];
}

TEST(Accounting, Closes) {
  const SwitchAccount account = accountOf(healthy());
  EXPECT_THAT(account.discrepancies, IsEmpty());
  EXPECT_TRUE(account.exact);
  EXPECT_EQ(account.received, 100);
  EXPECT_EQ(account.forwarded, 45);
  EXPECT_EQ(account.sent, 38);
  EXPECT_EQ(account.copiesOutput, 45);
  EXPECT_EQ(account.inFlight, 0);
  EXPECT_EQ(account.tables[0].entered, 100);
  EXPECT_EQ(account.tables[0].matched, 60);
  EXPECT_EQ(account.tables[5].entered, 30);
  EXPECT_EQ(account.tables[5].drop(SwitchDrop::kDropAction), 10);
  EXPECT_EQ(drop(account, SwitchDrop::kTableMiss), 40);
  EXPECT_EQ(drop(account, SwitchDrop::kDropAction), 10);
  EXPECT_EQ(drop(account, SwitchDrop::kTtlExpired), 5);
  EXPECT_EQ(drop(account, SwitchDrop::kNoSuchPort), 5);
}

// Twenty of the packets of table 5 come by way of table 3.
TEST(Accounting, TablesAreEnteredFromSeveral) {
  SwitchCounts counts = healthy();
  counts.matched[{0, {Kind::kGoto, 5}}] = 10;
  counts.matched[{0, {Kind::kGoto, 3}}] = 20;
  counts.matched[{3, {Kind::kGoto, 5}}] = 20;
  counts.deadEnds += 20;
  const SwitchAccount account = accountOf(counts);
  EXPECT_THAT(account.discrepancies, IsEmpty());
  EXPECT_EQ(account.tables[3].entered, 20);
  EXPECT_EQ(account.tables[5].entered, 30);
}

// Of what came, 3 were not queued and 2 of the others not written; one more has
// left for it and not come yet.
TEST(Accounting, TellsWhatTheControllersCaptureMissed) {
  SwitchCounts counts = healthy();
  counts.exact = false;
  counts.controller.notCaptured = 3;
  counts.controller.notWritten = 2;
  counts.controllerGatePackets = 3;
  const SwitchAccount account = accountOf(counts);
  EXPECT_EQ(drop(account, SwitchDrop::kControllerQueueFull), 3);
  EXPECT_EQ(drop(account, SwitchDrop::kControllerCaptureFailed), 2);
  EXPECT_EQ(account.sent, 38);
  EXPECT_EQ(account.copiesOutput, 46);
}

// Ports are read before tables: what comes meanwhile is not below zero.
TEST(Accounting, NothingIsInFlightWhenMoreHasEndedThanCame) {
  SwitchCounts counts = healthy();
  counts.exact = false;
  counts.ports[0].stats.rx_received -= 4;
  counts.ports[0].stats.rx_packets -= 4;
  const SwitchAccount account = accountOf(counts);
  EXPECT_EQ(account.received, 96);
  EXPECT_EQ(account.inFlight, 0);
  EXPECT_THAT(account.discrepancies, IsEmpty());
}

TEST(Accounting, LostOnTheWayToATableForWantOfBuffers) {
  SwitchCounts counts = healthy();
  counts.matched[{5, {Kind::kDropped}}] = 7;
  counts.deadEnds -= 3;
  counts.failedCopies = 9;
  const SwitchAccount account = accountOf(counts);
  EXPECT_THAT(account.discrepancies, IsEmpty());
  EXPECT_EQ(account.tables[5].drop(SwitchDrop::kNoBufferForTable), 3);
  EXPECT_EQ(drop(account, SwitchDrop::kNoBufferForOutput), 6);
}

TEST(Accounting, FreedWithTheirBatch) {
  SwitchCounts counts = healthy();
  counts.matched[{5, {Kind::kDropped}}] = 7;
  counts.deadEnds -= 3;
  counts.tables[5].set_batchdrops(1);
  const SwitchAccount account = accountOf(counts);
  EXPECT_THAT(account.discrepancies, IsEmpty());
  EXPECT_EQ(account.tables[5].drop(SwitchDrop::kLookupFailed), 3);
}

// Table 5 has lost three packets and the switch has met five for a port that
// it does not have; more are under way.
TEST(Accounting, UnderTrafficTellsWhatIsCertain) {
  SwitchCounts counts = healthy();
  counts.exact = false;
  counts.failedCopies = 3;
  counts.matched[{5, {Kind::kDropped}}] = 7;
  counts.matchedLater = counts.matched;
  counts.deadEnds -= 3;
  counts.matchedLater[{0, {Kind::kSent}}] += 2;
  counts.matchedLater[{5, {Kind::kSent}}] += 1;
  counts.tables[0].set_batchdrops(1);
  MissingPackets missing;
  SwitchAccount account = makeSwitchAccount(counts, &missing);
  EXPECT_FALSE(account.exact);
  EXPECT_THAT(account.discrepancies, IsEmpty());
  EXPECT_EQ(account.tables[5].drop(SwitchDrop::kNoBufferForTable), 2);
  EXPECT_EQ(drop(account, SwitchDrop::kNoSuchPort), 2);

  // A reading with more under way takes nothing back.
  counts.matchedLater[{5, {Kind::kSent}}] += 9;
  account = makeSwitchAccount(counts, &missing);
  EXPECT_EQ(account.tables[5].drop(SwitchDrop::kNoBufferForTable), 2);
  EXPECT_EQ(drop(account, SwitchDrop::kNoSuchPort), 2);
  EXPECT_EQ(drop(account, SwitchDrop::kLookupFailed), 0) << "none in table 0";

  counts.matchedLater = counts.matched;
  counts.exact = true;
  account = makeSwitchAccount(counts, &missing);
  EXPECT_THAT(account.discrepancies, IsEmpty());
  EXPECT_EQ(account.tables[5].drop(SwitchDrop::kNoBufferForTable), 3);
  EXPECT_EQ(drop(account, SwitchDrop::kNoSuchPort), 5);
}

struct Discrepancy {
  const char* name;
  void (*spoil)(SwitchCounts*);
  const char* sentence;
};

const Discrepancy kDiscrepancies[] = {
    {"NobodyKnowsThePacket",
     [](SwitchCounts* counts) {
       counts->matched[{0, {Kind::kSent}}] = 29;
     },
     "table 0: 1 of 100 packets are not accounted for"},
    {"MoreThanEntered",
     [](SwitchCounts* counts) {
       counts->matched[{5, {Kind::kSent}}] = 16;
     },
     "table 5: 30 packets entered, but 31 accounted for"},
    {"NotCopiedThoughNoCopyFailed",
     [](SwitchCounts* counts) {
       counts->matched[{5, {Kind::kSent}}] = 14;
     },
     "1 packet did not reach the next table, but only 0 copies failed"},
    {"GateAndPortDisagree",
     [](SwitchCounts* counts) { counts->ports[0].gatePackets = 39; },
     "port 1: 39 packets left for it, but 38 arrived"},
    {"MoreArrivedThanLeft",
     [](SwitchCounts* counts) { counts->ports[0].gatePackets = 37; },
     "port 1: 37 packets left for it, but 38 arrived"},
    {"ReceivedNotHandedOn",
     [](SwitchCounts* counts) { counts->ports[0].stats.rx_received = 104; },
     "port 1: 104 packets received, but 103 accounted for"},
    {"HandedOnNotReceived",
     [](SwitchCounts* counts) { counts->ports[0].stats.rx_received = 102; },
     "port 1: 102 packets received, but 103 accounted for"},
    {"NeitherSentNorDropped",
     [](SwitchCounts* counts) { counts->ports[0].stats.tx_packets = 35; },
     "port 1: 38 packets to send, but 37 accounted for"},
    {"SentTwice",
     [](SwitchCounts* counts) { counts->ports[0].stats.tx_packets = 37; },
     "port 1: 38 packets to send, but 39 accounted for"},
    {"ControllerLost",
     [](SwitchCounts* counts) { counts->controller.packets = 1; },
     "controller: 2 packets left for it, but 1 arrived"},
    {"ControllerGotMore",
     [](SwitchCounts* counts) { counts->controller.packets = 3; },
     "controller: 2 packets left for it, but 3 arrived"},
    {"EndedNowhere",
     [](SwitchCounts* counts) {
       counts->matched[{5, {Kind::kSent}}] = 16;
       counts->matched[{0, {Kind::kSent}}] = 28;
     },
     "100 packets received, but 99 accounted for"},
    {"EndedTwice",
     [](SwitchCounts* counts) {
       counts->matched[{5, {Kind::kSent}}] = 16;
     },
     "100 packets received, but 101 accounted for"},
    {"NotDroppedAfterwards",
     [](SwitchCounts* counts) { counts->deadEnds = 129; },
     "130 packets handled, but only 129 ended"},
};

class Discrepancies : public testing::TestWithParam<Discrepancy> {};

TEST_P(Discrepancies, AreToldInASentence) {
  SwitchCounts counts = healthy();
  GetParam().spoil(&counts);
  EXPECT_THAT(accountOf(counts).discrepancies,
              testing::Contains(GetParam().sentence));
  // Under traffic nothing can be said.
  counts.exact = false;
  EXPECT_THAT(accountOf(counts).discrepancies, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Rows, Discrepancies, testing::ValuesIn(kDiscrepancies),
                         [](const auto& row) { return row.param.name; });

TEST(Accounting, CausesAreToldWithTheirNameAndSentence) {
  const pb::DropCause miss = dropCause(SwitchDrop::kTableMiss, 7);
  EXPECT_EQ(miss.name(), "table_miss");
  EXPECT_EQ(miss.sentence(), "No flow of the table matched the packet.");
  EXPECT_EQ(miss.packets(), 7u);
  EXPECT_EQ(miss.port(), 0u);
  for (const bess::DropCauseInfo& cause : bess::kDropCauses) {
    const pb::DropCause told = dropCause(cause, 8, 3);
    EXPECT_EQ(told.name(), cause.name);
    EXPECT_EQ(told.sentence(), cause.sentence);
    EXPECT_EQ(told.packets(), 8u);
    EXPECT_EQ(told.port(), 3u);
  }
}

TEST(Accounting, CausesHaveNamesOfTheirOwnAndSentences) {
  std::set<std::string> names;
  for (const SwitchDropInfo& cause : kSwitchDrops) {
    EXPECT_TRUE(names.insert(cause.name).second) << cause.name;
    EXPECT_TRUE(std::string(cause.sentence).ends_with(".")) << cause.name;
  }
  for (const bess::DropCauseInfo& cause : bess::kDropCauses) {
    EXPECT_TRUE(names.insert(cause.name).second) << cause.name;
  }
}

}  // namespace
}  // namespace ofswitch
