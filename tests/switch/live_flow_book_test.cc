// SPDX-License-Identifier: BSD-3-Clause
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <map>

#include "switch/live/flow_book.h"
#include "tests/switch/live_book.h"

namespace ofswitch {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char kThree[] =
    "table=0,priority=10,in_port=1,actions=output:2\n"
    "table=0,priority=10,in_port=2,actions=goto_table:3\n"
    "table=3,priority=5,ipv6,actions=output:1\n";

TEST(FlowBook, AddsOneBuildATableAndFamilyLaterTablesFirst) {
  BookBench bench;
  const pb::FlowChangeReply reply = bench.add(kThree);
  EXPECT_TRUE(reply.applied());
  EXPECT_EQ(reply.added(), 3);
  EXPECT_EQ(reply.changed() + reply.removed() + reply.unchanged(), 0);
  // Table 3 has its flow in IPv6 and its miss flow in IPv4.
  ASSERT_EQ(reply.builds_size(), 3);
  EXPECT_EQ(reply.builds(0).table(), 3);
  EXPECT_FALSE(reply.builds(0).ipv6());
  EXPECT_EQ(reply.builds(1).table(), 3);
  EXPECT_TRUE(reply.builds(1).ipv6());
  EXPECT_EQ(reply.builds(2).table(), 0);
  EXPECT_EQ(reply.builds(2).adds(), 3);  // two flows and the miss flow
  EXPECT_EQ(reply.builds(2).flows(), 3);
  EXPECT_EQ(bench.module.gracePeriods, 1);
  EXPECT_THAT(bench.texts(),
              ElementsAre("table=0,priority=10,in_port=1,actions=output:2",
                          "table=0,priority=10,in_port=2,actions=goto_table:3",
                          "table=3,priority=5,ipv6,actions=output:1"));
}

TEST(FlowBook, ManyFlowsAreOneBuild) {
  BookBench bench;
  std::string text;
  for (int i = 0; i < 400; i++) {
    text += fmt::format("tcp,tp_dst={},actions=output:1\n", i);
  }
  const pb::FlowChangeReply reply = bench.add(text);
  ASSERT_EQ(reply.builds_size(), 1);
  EXPECT_EQ(reply.builds(0).adds(), 401);
}

TEST(FlowBook, RefusesMoreFlowsThanCountersWithoutTakingAny) {
  BookBench bench;
  std::string text;
  for (int i = 0; i < 500; i++) {
    text += fmt::format("tcp,tp_dst={},actions=output:1\n", i);
  }
  const uint32_t available = bench.counters.available();
  const FlowBook::Plan plan = bench.book.planAdd(BookBench::flows(text), false);
  ASSERT_THAT(plan.refusals, SizeIs(1));
  EXPECT_EQ(plan.refusals[0].text(),
            "test:468: no counters are left for this flow: 999 are free; raise "
            "\"counters\" in the configuration");
  EXPECT_THAT(plan.updates, IsEmpty());
  EXPECT_EQ(bench.counters.available(), available);
}

// The flows that it would have taken the place of stay.
TEST(FlowBook, RefusesAReplacementByMoreFlowsThanCounters) {
  BookBench bench;
  bench.add("arp,actions=drop");
  std::string text;
  for (int i = 0; i < 500; i++) {
    text += fmt::format("tcp,tp_dst={},actions=output:1\n", i);
  }
  const uint32_t available = bench.counters.available();
  const FlowBook::Plan plan =
      bench.book.planReplace(BookBench::flows(text), false);
  ASSERT_THAT(plan.refusals, SizeIs(1));
  EXPECT_THAT(plan.refusals[0].reason,
              testing::StartsWith("no counters are left for this flow"));
  EXPECT_THAT(plan.updates, IsEmpty());
  EXPECT_EQ(bench.counters.available(), available);
}

// Room for the miss flows of all tables, 64 counters, is kept free.
TEST(FlowBook, TheLastFlowThatFitsIsTaken) {
  BookBench bench;
  bench.counters.take();
  ASSERT_EQ(bench.counters.available(), 998u);
  std::string text;
  for (int i = 0; i < (998 - 64) / 2; i++) {
    text += fmt::format("tcp,tp_dst={},actions=output:1\n", i);
  }
  FlowBook::Plan plan =
      bench.book.planAdd(BookBench::flows(text.substr(text.find('\n') + 1) +
                                          "ip,actions=dec_ttl,output:1\n"),
                         false);
  ASSERT_THAT(plan.refusals, SizeIs(1)) << "a guard has counters, too";
  EXPECT_TRUE(bench.add(text).applied());
  // Each table that is reached has got its miss flow by now, and the next one
  // needs another: its flow fits no more.
  EXPECT_EQ(bench.counters.available(), 62u);
  EXPECT_THAT(
      bench.book.planAdd(BookBench::flows("arp,actions=drop"), false).refusals,
      SizeIs(1));
}

TEST(FlowBook, DeletesEarlierTablesFirst) {
  BookBench bench;
  bench.add(kThree);
  const pb::FlowChangeReply reply = bench.remove("");
  EXPECT_EQ(reply.removed(), 3);
  ASSERT_EQ(reply.builds_size(), 2);
  EXPECT_EQ(reply.builds(0).table(), 0);
  EXPECT_EQ(reply.builds(0).deletes(), 2);
  EXPECT_EQ(reply.builds(1).table(), 3);
  EXPECT_TRUE(reply.builds(1).ipv6());
  EXPECT_EQ(reply.builds(1).flows(), 0);
  EXPECT_THAT(bench.texts(), IsEmpty());
  // What is still on its way to table 3 must be counted.
  EXPECT_THAT(bench.book.select({}, true), SizeIs(2));
}

TEST(FlowBook, AddingAgainChangesNothingInTheModule) {
  BookBench bench;
  bench.add(kThree);
  bench.now += std::chrono::seconds(5);
  const pb::FlowChangeReply reply = bench.add(kThree);
  EXPECT_TRUE(reply.applied());
  EXPECT_EQ(reply.unchanged(), 3);
  EXPECT_EQ(reply.builds_size(), 0);
  EXPECT_EQ(bench.only("in_port=1").added, bench.now);
}

TEST(FlowBook, ReplacedFlowKeepsIdentifierAndCounts) {
  BookBench bench;
  bench.add("in_port=1,actions=output:2");
  const InstalledRule before = bench.only("in_port=1").installed->rule;
  bench.hit(before, 60);
  bench.hit(before, 1500);
  const pb::FlowChangeReply reply = bench.add("in_port=1,actions=output:3");
  EXPECT_EQ(reply.changed(), 1);
  ASSERT_EQ(reply.builds_size(), 1);
  EXPECT_EQ(reply.builds(0).adds(), 1);
  EXPECT_EQ(reply.builds(0).deletes(), 0);
  const FlowBook::View after = bench.only("in_port=1");
  EXPECT_EQ(after.installed->rule.flowId, before.flowId);
  EXPECT_NE(after.installed->rule.packetCounterId, before.packetCounterId);
  EXPECT_EQ(after.counts.packets, 2);
  EXPECT_EQ(after.counts.bytes, 1560);
  bench.hit(after.installed->rule, 100);
  EXPECT_EQ(bench.only("in_port=1").counts.packets, 3);
}

TEST(FlowBook, ReplacedFlowKeepsItsPlaceAmongEquals) {
  BookBench bench;
  bench.add(
      "in_port=1,actions=output:2\n"
      "in_port=2,actions=output:2\n"
      "in_port=3,actions=output:2\n");
  bench.add("in_port=1,actions=output:3");
  bench.add("in_port=2,actions=output:3", true);
  const std::vector<std::string> texts = bench.texts();
  ASSERT_EQ(texts.size(), 3u);
  for (size_t i = 0; i < texts.size(); i++) {
    EXPECT_NE(texts[i].find("in_port=" + std::to_string(i + 1)),
              std::string::npos)
        << texts[i];
  }
}

TEST(FlowBook, ResetCountsStartsAnewWithoutTheOldFlowsLastPackets) {
  BookBench bench;
  bench.add("in_port=1,actions=output:2");
  const InstalledRule before = bench.only("in_port=1").installed->rule;
  bench.hit(before);
  FlowBook::Plan plan =
      bench.book.planAdd(BookBench::flows("in_port=1,actions=output:2"), true);
  bench.hit(before);  // until the new classifier is published
  const pb::FlowChangeReply reply = bench.make(std::move(plan));
  EXPECT_EQ(reply.builds_size(), 1);
  EXPECT_EQ(bench.only("in_port=1").counts.packets, 0);
  // They are not lost for the account.
  EXPECT_EQ((bench.book.matched()[{0, {RuleEnd::Kind::kSent}}]), 2);
}

TEST(FlowBook, CookieAloneIsNoBuild) {
  BookBench bench;
  bench.add("in_port=1,actions=output:2");
  const InstalledRule before = bench.only("in_port=1").installed->rule;
  const pb::FlowChangeReply reply =
      bench.add("cookie=7,in_port=1,actions=output:2");
  EXPECT_EQ(reply.changed(), 1);
  EXPECT_EQ(reply.builds_size(), 0);
  EXPECT_EQ(bench.only("cookie=7/-1").installed->rule, before);
  // Nor of a flow that has a guard.
  bench.add("ip,actions=dec_ttl,output:2");
  EXPECT_EQ(bench.add("cookie=8,ip,actions=dec_ttl,output:2").builds_size(), 0);
}

TEST(FlowBook, ListsTheFirstOfMany) {
  BookBench bench;
  bench.add(
      "priority=5,in_port=1,actions=output:2\n"
      "priority=7,in_port=1,actions=output:2\n"
      "priority=6,in_port=1,actions=output:2\n");
  const auto prioritiesOf = [&](size_t most) {
    std::vector<int> priorities;
    for (const FlowBook::View& view : bench.book.select({}, false, most)) {
      priorities.push_back(view.installed->flow.priority);
    }
    return priorities;
  };
  EXPECT_THAT(prioritiesOf(0), IsEmpty());
  EXPECT_THAT(prioritiesOf(2), ElementsAre(7, 6));
  EXPECT_THAT(prioritiesOf(3), ElementsAre(7, 6, 5));
  EXPECT_THAT(prioritiesOf(4), ElementsAre(7, 6, 5));
}

// For the module both are a flow that drops; what it drops is another matter.
TEST(FlowBook, AnotherEndIsCountedApart) {
  BookBench bench;
  bench.add("ip,nw_ttl=1,actions=dec_ttl,output:2");
  const InstalledRule before = bench.only("ip").installed->rule;
  bench.hit(before);
  EXPECT_EQ(bench.only("ip").counts.ttlExpired, 1);
  const pb::FlowChangeReply reply = bench.add("ip,nw_ttl=1,actions=drop");
  EXPECT_EQ(reply.changed(), 1);
  EXPECT_EQ(reply.builds_size(), 1);
  const FlowBook::View after = bench.only("ip");
  EXPECT_NE(after.installed->rule.packetCounterId, before.packetCounterId);
  EXPECT_EQ(after.counts.packets, 1);
  EXPECT_EQ(after.counts.ttlExpired, 1);
  bench.hit(after.installed->rule);
  bench.hit(after.installed->rule);
  EXPECT_EQ(bench.only("ip").counts.packets, 3);
  EXPECT_EQ(bench.only("ip").counts.ttlExpired, 1);
  EXPECT_EQ((bench.book.matched()[{0, {RuleEnd::Kind::kTtlExpired}}]), 1);
  EXPECT_EQ((bench.book.matched()[{0, {RuleEnd::Kind::kDropped}}]), 2);
}

TEST(FlowBook, GuardsFollowTheirFlow) {
  BookBench bench;
  bench.add("ip,actions=dec_ttl,output:2");
  const FlowBook::View view = bench.only("ip");
  ASSERT_THAT(view.installed->guards, SizeIs(1));
  bench.hit(view.installed->rule);
  bench.hit(view.installed->guards[0]);
  EXPECT_EQ(bench.only("ip").counts.packets, 2);
  EXPECT_EQ(bench.only("ip").counts.ttlExpired, 1);
  const InstalledRule guard = view.installed->guards[0];
  EXPECT_EQ(bench.book.findByFlowId(guard.flowId)->installed->rule.flowId,
            view.installed->rule.flowId);
  EXPECT_EQ(bench.book.findByPacketCounter(guard.packetCounterId)
                ->installed->rule.flowId,
            view.installed->rule.flowId);
  EXPECT_EQ((bench.book.matched()[{0, {RuleEnd::Kind::kTtlExpired}}]), 1);
  EXPECT_EQ((bench.book.matched()[{0, {RuleEnd::Kind::kSent}}]), 1);

  // Under its identifier, as its flow.
  const pb::FlowChangeReply changed = bench.add("ip,actions=dec_ttl,output:3");
  ASSERT_EQ(changed.builds_size(), 1);
  EXPECT_EQ(changed.builds(0).adds(), 2);
  EXPECT_EQ(changed.builds(0).deletes(), 0);

  const pb::FlowChangeReply reply = bench.add("ip,actions=output:2");
  ASSERT_EQ(reply.builds_size(), 1);
  EXPECT_EQ(reply.builds(0).adds(), 1);
  EXPECT_EQ(reply.builds(0).deletes(), 1);
  EXPECT_THAT(bench.only("ip").installed->guards, IsEmpty());
  EXPECT_EQ(bench.only("ip").counts.packets, 2);
  EXPECT_EQ(bench.only("ip").counts.ttlExpired, 1);
  EXPECT_EQ((bench.book.matched()[{0, {RuleEnd::Kind::kTtlExpired}}]), 1);

  // Its identifier is free for others.
  bench.add("arp,actions=drop");
  EXPECT_EQ(bench.only("arp").installed->rule.flowId, guard.flowId);

  EXPECT_EQ(bench.remove("").builds(0).deletes(), 2);
}

// A guard goes before its flow, and everything before the miss flow.
TEST(FlowBook, RulesHaveThePrioritiesOfTheirKind) {
  BookBench bench;
  bench.add("priority=0,ip,actions=dec_ttl,output:2");
  const InstalledFlow flow = *bench.only("ip").installed;
  EXPECT_EQ(flow.rule.priority, flowPriority(flow.flow));
  EXPECT_EQ(flow.guards.at(0).priority, guardPriority(flow.flow));
  EXPECT_GT(guardPriority(flow.flow), flowPriority(flow.flow));
  EXPECT_GT(flow.rule.priority, kMissPriority);
  EXPECT_EQ(bench.book.select({}, true).back().installed->rule.priority,
            kMissPriority);
  std::map<uint32_t, uint32_t> sent;
  for (const auto& add : bench.module.updates.at(0).adds()) {
    sent[add.flowid()] = add.priority();
  }
  EXPECT_EQ(sent.at(flow.rule.flowId), flow.rule.priority);
  EXPECT_EQ(sent.at(flow.guards[0].flowId), flow.guards[0].priority);
}

TEST(FlowBook, NumbersRestUntilAGracePeriodHasPassed) {
  BookBench bench;
  bench.add("in_port=1,actions=output:2");
  const InstalledRule gone = bench.only("in_port=1").installed->rule;
  bench.book.commit(bench.book.planDelete({FlowFilter{}}), bench.now);
  bench.hit(gone);  // by a worker that still sees it
  bench.book.commit(
      bench.book.planAdd(BookBench::flows("in_port=2,actions=drop"), false),
      bench.now);
  const InstalledRule other = bench.only("in_port=2").installed->rule;
  EXPECT_NE(other.flowId, gone.flowId);
  EXPECT_NE(other.packetCounterId, gone.packetCounterId);
  bench.hit(gone);
  bench.book.releaseRetired();
  EXPECT_EQ((bench.book.matched()[{0, {RuleEnd::Kind::kSent}}]), 2);

  bench.book.commit(
      bench.book.planAdd(BookBench::flows("in_port=3,actions=drop"), false),
      bench.now);
  const FlowBook::View again = bench.only("in_port=3");
  EXPECT_EQ(again.installed->rule.flowId, gone.flowId);
  EXPECT_EQ(again.counts.packets, 0);  // although its counters have counted
}

TEST(FlowBook, ReplaceSendsTheDifferenceOnly) {
  BookBench bench;
  bench.add(kThree);
  bench.now += std::chrono::seconds(9);
  const pb::FlowChangeReply reply = bench.replace(
      "table=0,priority=10,in_port=1,actions=output:2\n"  // as it was
      "table=0,priority=10,in_port=2,actions=output:3\n"  // changed
      "table=3,priority=6,ipv6,actions=output:1\n");      // new for old
  EXPECT_EQ(reply.added(), 1);
  EXPECT_EQ(reply.changed(), 1);
  EXPECT_EQ(reply.removed(), 1);
  EXPECT_EQ(reply.unchanged(), 1);
  ASSERT_EQ(reply.builds_size(), 2);
  EXPECT_EQ(reply.builds(0).adds(), 1);
  EXPECT_EQ(reply.builds(0).deletes(), 1);
  EXPECT_EQ(reply.builds(1).adds(), 1);
  EXPECT_EQ(reply.builds(1).deletes(), 0);
  // What stays keeps its age.
  EXPECT_EQ(bench.only("in_port=1").added, bench.now - std::chrono::seconds(9));
  EXPECT_EQ(bench.only("in_port=2").added, bench.now);
  EXPECT_EQ(bench.replace(kThree).unchanged(), 1);
}

TEST(FlowBook, ReplaceThatResetsCountsLeavesNothingAsItIs) {
  BookBench bench;
  bench.add("in_port=1,actions=output:2");
  const InstalledRule before = bench.only("in_port=1").installed->rule;
  bench.hit(before);
  bench.now += std::chrono::seconds(9);
  const pb::FlowChangeReply reply = bench.make(bench.book.planReplace(
      BookBench::flows("in_port=1,actions=output:2"), true));
  EXPECT_EQ(reply.unchanged(), 1);
  EXPECT_EQ(reply.builds_size(), 1);
  const FlowBook::View after = bench.only("in_port=1");
  EXPECT_EQ(after.counts.packets, 0);
  EXPECT_EQ(after.added, bench.now);
  EXPECT_EQ(after.installed->rule.flowId, before.flowId);
}

TEST(FlowBook, ReplaceGivesTablesThatItReachesTheirMissFlow) {
  BookBench bench;
  bench.replace("in_port=1,actions=goto_table:7\n");
  EXPECT_EQ(bench.book.numRules(7, false), 1u);
  EXPECT_EQ(bench.book.numFlows(7), 0u);
  std::vector<int> tables;
  for (const FlowBook::View& view : bench.book.select({}, true)) {
    if (view.installed->isTableMiss) {
      tables.push_back(view.installed->flow.table);
    }
  }
  EXPECT_THAT(tables, ElementsAre(0, 7));
}

TEST(FlowBook, NotesOutputsToPortsThatAreNotThere) {
  BookBench bench;
  const FlowBook::Plan plan = bench.book.planAdd(
      BookBench::flows("in_port=1,actions=output:2\n"
                       "in_port=2,actions=output:1,output:99\n"),
      false);
  EXPECT_THAT(plan.refusals, IsEmpty());
  ASSERT_THAT(plan.notes, SizeIs(1));
  EXPECT_EQ(plan.notes[0].text(),
            "test:2: output:99: port 99 is not connected, what is sent there "
            "goes nowhere");
}

TEST(FlowBook, LastOfEqualsWinsAndIsNamed) {
  BookBench bench;
  FlowBook::Plan plan =
      bench.book.planAdd(BookBench::flows("in_port=1,actions=output:2\n"
                                          "in_port=1,actions=output:3\n"),
                         false);
  ASSERT_THAT(plan.notes, SizeIs(1));
  EXPECT_EQ(plan.notes[0].text(),
            "test:1: replaced by test:2, which has the same table, priority "
            "and match");
  EXPECT_EQ(bench.make(std::move(plan)).added(), 1);
  EXPECT_THAT(bench.texts(), ElementsAre("table=0,priority=32768,in_port=1,"
                                         "actions=output:3"));
}

}  // namespace
}  // namespace ofswitch
