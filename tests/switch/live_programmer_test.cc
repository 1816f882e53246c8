// SPDX-License-Identifier: BSD-3-Clause
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <random>
#include <thread>

#include "switch/live/flow_programmer.h"
#include "tests/switch/live_book.h"

namespace ofswitch {
namespace {

using testing::SizeIs;

TEST(FlowProgrammer, FailedBuildLeavesEverythingAsItWas) {
  BookBench bench;
  bench.add("in_port=1,actions=output:2\ntable=3,in_port=1,actions=drop");
  const FakeModule::Tables before = bench.module.published;
  const std::vector<std::string> flows = bench.texts();
  const uint32_t counters = bench.counters.available();

  // Table 5 is built and published, table 3 as well, table 0 fails.
  bench.module.failures = {bench.module.builds + 2};
  const pb::FlowChangeReply reply = bench.add(
      "in_port=1,actions=goto_table:5\n"
      "in_port=2,actions=output:1\n"
      "table=3,in_port=1,actions=output:3\n"
      "table=5,in_port=1,actions=output:3\n");
  EXPECT_FALSE(reply.applied());
  EXPECT_EQ(reply.failure(),
            "table 0 IPv4: no memory; all flows are as they were");
  EXPECT_EQ(reply.added() + reply.changed() + reply.removed(), 0);
  ASSERT_EQ(reply.builds_size(), 6);
  EXPECT_EQ(reply.builds(2).failure(), "no memory");
  EXPECT_FALSE(reply.builds(2).is_inverse());
  // The other way round: table 0 first, so that nothing is sent to table 5
  // when its flows go.
  EXPECT_TRUE(reply.builds(3).is_inverse());
  EXPECT_EQ(reply.builds(3).table(), 0);
  EXPECT_EQ(reply.builds(4).table(), 3);
  EXPECT_EQ(reply.builds(5).table(), 5);

  EXPECT_EQ(bench.module.published, before);
  EXPECT_EQ(bench.module.store, before);
  EXPECT_EQ(bench.texts(), flows);
  EXPECT_EQ(bench.counters.available(), counters);
  EXPECT_TRUE(bench.add("in_port=2,actions=output:1").applied());
}

TEST(FlowProgrammer, UndoesNothingThatItHasNotSent) {
  BookBench bench;
  bench.add("ip,actions=output:1\nipv6,actions=output:1");
  const FakeModule::Tables before = bench.module.published;
  bench.module.failures = {bench.module.builds};
  const pb::FlowChangeReply reply =
      bench.add("ip,actions=output:2\nipv6,actions=output:2");
  EXPECT_FALSE(reply.applied());
  ASSERT_EQ(reply.builds_size(), 2);
  EXPECT_EQ(reply.builds(0).failure(), "no memory");
  EXPECT_TRUE(reply.builds(1).is_inverse());
  EXPECT_EQ(reply.builds(1).ipv6(), reply.builds(0).ipv6());
  EXPECT_EQ(bench.module.published, before);
  EXPECT_EQ(bench.module.store, before);
}

TEST(FlowProgrammer, RemembersTheLongestBuild) {
  constexpr auto kLong = std::chrono::milliseconds(20);
  BookBench bench;
  bool slow = true;
  FlowProgrammer programmer(&bench.book,
                            {[&](const TableUpdate& update, Sender) {
                               if (slow) std::this_thread::sleep_for(kLong);
                               slow = false;
                               return bench.module.take(update);
                             },
                             [] {}});
  std::chrono::nanoseconds total{};
  for (const char* flow :
       {"in_port=1,actions=output:2", "in_port=2,actions=output:2"}) {
    pb::FlowChangeReply reply;
    programmer.make(bench.book.planAdd(BookBench::flows(flow), false),
                    bench.now, {}, &reply);
    total += std::chrono::nanoseconds(reply.build_time_ns());
  }
  const BuildHistory& history = programmer.history(0, false);
  EXPECT_EQ(history.builds, 2);
  EXPECT_GE(history.longest, kLong);
  EXPECT_EQ(history.longest + history.last, total);
  EXPECT_EQ(history.total, total);
}

TEST(FlowProgrammer, PacketsOfAFailedChangeAreAccountedFor) {
  BookBench bench;
  FlowBook::Plan plan = bench.book.planAdd(
      BookBench::flows("in_port=1,actions=goto_table:5\n"
                       "table=5,in_port=1,actions=output:3\n"),
      false);
  InstalledRule published;
  for (const FlowBook::Step& step : plan.steps) {
    if (step.after->flow.table == 5) published = step.after->rule;
  }
  bench.hit(published);  // while table 0 is built
  bench.module.failures = {1};
  EXPECT_FALSE(bench.make(std::move(plan)).applied());
  EXPECT_EQ(bench.book.matched().size(), 1);
}

TEST(FlowProgrammer, MendsWhatCouldNotBeUndone) {
  BookBench bench;
  bench.add("in_port=1,actions=output:2\ntable=3,in_port=1,actions=drop");
  const FakeModule::Tables before = bench.module.published;
  const int next = bench.module.builds;
  bench.module.failures = {next + 1, next + 3, next + 4};
  const pb::FlowChangeReply reply = bench.add(
      "in_port=1,actions=output:3\ntable=3,in_port=1,actions=output:3\n");
  EXPECT_EQ(reply.failure(),
            "table 0 IPv4: no memory; undoing it failed in table 3 IPv4, which "
            "is tried again within a minute");
  EXPECT_NE(bench.module.published, before);
  EXPECT_EQ(bench.module.store, before);
  EXPECT_FALSE(bench.programmer.mend(bench.now));
  EXPECT_NE(bench.module.published, before);
  EXPECT_TRUE(bench.programmer.mend(bench.now + std::chrono::seconds(1)));
  EXPECT_EQ(bench.module.published, before);
}

TEST(FlowProgrammer, MendsTablesOfEitherFamily) {
  BookBench bench;
  bench.add("ipv6,actions=output:2");
  const FakeModule::Tables before = bench.module.published;
  const uint64_t builds = bench.programmer.history(0, false).builds;
  const int next = bench.module.builds;
  bench.module.failures = {next, next + 1};
  EXPECT_EQ(bench.add("ipv6,actions=output:3").failure(),
            "table 0 IPv6: no memory; undoing it failed in table 0 IPv6, which "
            "is tried again within a minute");
  bench.module.published.erase({0, quil::pb::OPENFLOW_TYPE_IPV6});
  EXPECT_TRUE(bench.programmer.mend(bench.now));
  EXPECT_EQ(bench.module.published, before);
  EXPECT_EQ(bench.programmer.history(0, true).builds, 4);
  EXPECT_EQ(bench.programmer.history(0, false).builds, builds);
}

// What is too large for one update comes in several of the same table, and its
// inverse undoes them all.
TEST(FlowProgrammer, UndoesATableOfSeveralUpdatesOnce) {
  BookBench bench;
  bench.add("in_port=1,actions=output:2");
  const FakeModule::Tables before = bench.module.published;
  FlowBook::Plan plan = bench.book.planAdd(
      BookBench::flows("in_port=1,actions=drop\nin_port=2,actions=drop"),
      false);
  ASSERT_THAT(plan.updates, SizeIs(1));
  ASSERT_EQ(plan.updates[0].adds_size(), 2);
  plan.updates.push_back(plan.updates[0]);
  plan.updates[0].mutable_adds()->RemoveLast();
  plan.updates[1].mutable_adds()->DeleteSubrange(0, 1);
  bench.module.failures = {bench.module.builds + 1};
  const pb::FlowChangeReply reply = bench.make(std::move(plan));
  EXPECT_EQ(reply.failure(),
            "table 0 IPv4: no memory; all flows are as they were");
  ASSERT_EQ(reply.builds_size(), 3);
  EXPECT_FALSE(reply.builds(1).is_inverse());
  EXPECT_TRUE(reply.builds(2).is_inverse());
  EXPECT_EQ(bench.module.published, before);
  EXPECT_EQ(bench.module.store, before);
}

// Each build that fails may keep memory for good.
TEST(FlowProgrammer, WaitsLongerAfterEachBuildThatFails) {
  using std::chrono::seconds;
  BookBench bench;
  bench.add("in_port=1,actions=output:2");
  for (int i = 0; i < 100; i++) {
    bench.module.failures.insert(bench.module.builds + i);
  }
  EXPECT_FALSE(bench.add("in_port=1,actions=output:3").applied());
  const int before = bench.module.builds;
  std::vector<int> tries;
  for (int second = 0; second <= 200; second++) {
    const int builds = bench.module.builds;
    EXPECT_FALSE(bench.programmer.mend(bench.now + seconds(second)));
    if (bench.module.builds > builds) tries.push_back(second);
  }
  EXPECT_THAT(tries, testing::ElementsAre(0, 1, 3, 7, 15, 31, 63, 123, 183));

  // Another change of the table starts anew.
  bench.now += seconds(200);
  EXPECT_FALSE(bench.add("in_port=1,actions=output:3").applied());
  tries.clear();
  for (int second = 0; second <= 8; second++) {
    const int builds = bench.module.builds;
    EXPECT_FALSE(bench.programmer.mend(bench.now + seconds(second)));
    if (bench.module.builds > builds) tries.push_back(second);
  }
  EXPECT_THAT(tries, testing::ElementsAre(0, 1, 3, 7));
  EXPECT_GT(bench.module.builds, before);
  bench.module.failures.clear();
  EXPECT_TRUE(bench.programmer.mend(bench.now + seconds(20)));
}

TEST(FlowProgrammer, WhatThereIsNoRoomForIsNoBuild) {
  BookBench bench;
  bench.add("in_port=1,actions=output:2\ntable=3,in_port=1,actions=drop");
  const FakeModule::Tables before = bench.module.published;
  const uint64_t builds = bench.programmer.history(3, false).builds;
  bench.module.fullAfter = bench.module.builds;
  const pb::FlowChangeReply reply =
      bench.add("table=3,in_port=1,actions=output:3");
  EXPECT_FALSE(reply.applied());
  EXPECT_EQ(reply.failure(),
            "table 3 IPv4: no room; all flows are as they were");
  EXPECT_EQ(reply.builds_size(), 0);
  EXPECT_EQ(bench.programmer.history(3, false).builds, builds);
  EXPECT_EQ(bench.programmer.history(3, false).failures, 0);
  EXPECT_EQ(bench.module.published, before);
  EXPECT_TRUE(bench.programmer.mend(bench.now));
}

// What is missing comes with the next update of the table, or by itself.
TEST(FlowProgrammer, MakesInversesUpThatHadNoRoom) {
  for (const bool isChanged : {false, true}) {
    BookBench bench;
    bench.add(
        "in_port=1,actions=output:2\nin_port=3,actions=output:2\n"
        "table=3,in_port=1,actions=drop");
    FakeModule::Tables expected = bench.module.published;
    // Table 3 is built, table 0 fails, and then there is no room for anything.
    bench.module.failures = {bench.module.builds + 1};
    bench.module.fullAfter = bench.module.builds + 2;
    const pb::FlowChangeReply reply = bench.replace(
        "in_port=1,actions=output:3\nin_port=2,actions=output:3\n"
        "table=3,in_port=2,actions=output:3\n");
    EXPECT_EQ(reply.failure(),
              "table 0 IPv4: no memory; undoing it failed in table 0 IPv4, "
              "table 3 IPv4, which is tried again within a minute");
    EXPECT_FALSE(bench.programmer.mend(bench.now));
    EXPECT_FALSE(bench.add("in_port=2,actions=drop").applied());
    EXPECT_NE(bench.module.store, expected);
    EXPECT_THAT(bench.texts(), SizeIs(3));
    bench.module.fullAfter = -1;
    if (isChanged) {
      // With flow identifiers that the failed change has given back.
      EXPECT_TRUE(bench.remove("table=0,in_port=3").applied());
      EXPECT_TRUE(bench
                      .add("in_port=2,actions=drop\n"
                           "table=3,in_port=3,actions=drop")
                      .applied());
      EXPECT_TRUE(bench.remove("table=0,in_port=2").applied());
      EXPECT_TRUE(bench.remove("table=3,in_port=3").applied());
      EXPECT_TRUE(bench.add("in_port=3,actions=output:2").applied());
      EXPECT_THAT(bench.texts(), SizeIs(3));
    }
    EXPECT_TRUE(bench.programmer.mend(bench.now));
    EXPECT_EQ(bench.module.published, bench.module.store);
    if (!isChanged) {
      EXPECT_EQ(bench.module.published, expected);
    }
    BookBench fresh;
    for (const std::string& text : bench.texts()) fresh.add(text);
    for (const auto& [place, rules] : fresh.module.published) {
      EXPECT_EQ(bench.module.published[place].size(), rules.size());
    }
  }
}

TEST(FlowProgrammer, MakesUpInversesThatOnlyRemove) {
  BookBench bench;
  bench.add("in_port=1,actions=output:2");
  const FakeModule::Tables before = bench.module.published;
  bench.module.failures = {bench.module.builds};
  bench.module.fullAfter = bench.module.builds + 1;
  EXPECT_EQ(bench.add("in_port=2,actions=output:2").failure(),
            "table 0 IPv4: no memory; undoing it failed in table 0 IPv4, which "
            "is tried again within a minute");
  EXPECT_NE(bench.module.store, before);
  bench.module.fullAfter = -1;
  EXPECT_TRUE(bench.programmer.mend(bench.now));
  EXPECT_EQ(bench.module.store, before);
  EXPECT_EQ(bench.module.published, before);
}

TEST(FlowProgrammer, TellsItsProgressAndRemembersItsBuilds) {
  BookBench bench;
  std::vector<std::string> steps;
  pb::FlowChangeReply reply;
  bench.programmer.make(
      bench.book.planAdd(BookBench::flows("in_port=1,actions=output:2\n"
                                          "table=4,ipv6,actions=output:2\n"),
                         false),
      bench.now,
      [&](const pb::FlowProgress& step) {
        steps.push_back(
            fmt::format("{}/{} {}", step.done(), step.total(), step.step()));
      },
      &reply);
  EXPECT_THAT(steps, testing::ElementsAre(
                         "0/2 table 4 IPv6: 1 flows to add, 0 to remove",
                         "1/2 table 0 IPv4: 2 flows to add, 0 to remove"));
  const BuildHistory& history = bench.programmer.history(0, false);
  EXPECT_EQ(history.builds, 1);
  EXPECT_EQ(history.failures, 0);
  EXPECT_EQ(history.total, history.last);
  EXPECT_EQ(reply.builds(1).time_ns(),
            static_cast<uint64_t>(history.last.count()));
  EXPECT_EQ(reply.build_time_ns(),
            reply.builds(0).time_ns() + reply.builds(1).time_ns());
}

// Random changes, some of which fail: what the module has is always what a
// module has that got the flows of the book at once.
TEST(FlowProgrammer, ModuleAndBookNeverDisagree) {
  std::mt19937 random(7);
  const auto below = [&](int n) {
    return static_cast<int>(random() % static_cast<unsigned>(n));
  };
  const auto randomFlow = [&] {
    const int table = below(4);
    const char* matches[] = {"in_port=1", "ip", "ipv6", "tcp,tp_dst=80"};
    const std::string actions[] = {
        "drop", "output:1", "dec_ttl,output:2",
        fmt::format("goto_table:{}", table + 1 + below(3)), "all"};
    return fmt::format("table={},priority={},cookie={},{},actions={}\n", table,
                       below(3), below(2), matches[below(4)],
                       actions[below(5)]);
  };
  BookBench bench;
  bench.add("");
  int failed = 0;
  for (int round = 0; round < 300; round++) {
    const FakeModule::Tables before = bench.module.published;
    const std::vector<std::string> texts = bench.texts();
    if (below(3) == 0)
      bench.module.failures.insert(bench.module.builds + below(3));
    std::string text;
    for (int i = below(6); i >= 0; i--) text += randomFlow();
    const int what = below(4);
    const pb::FlowChangeReply reply =
        what == 0   ? bench.replace(text)
        : what == 1 ? bench.remove(fmt::format("table={}", below(4)))
        : what == 2 ? bench.remove("out_port=1")
                    : bench.add(text, below(2) == 0);
    bench.module.failures.clear();
    if (!reply.applied()) {
      failed++;
      EXPECT_EQ(bench.module.published, before) << round;
      EXPECT_EQ(bench.texts(), texts) << round;
    }
    EXPECT_EQ(bench.module.published, bench.module.store) << round;
    std::map<std::pair<uint32_t, int>, size_t> rules;
    for (const FlowBook::View& view : bench.book.select({}, true)) {
      const InstalledFlow& flow = *view.installed;
      rules[{flow.flow.table, flow.rule.family}]++;
      for (const InstalledRule& guard : flow.guards) {
        rules[{flow.flow.table, guard.family}]++;
      }
    }
    for (const auto& [place, flows] : bench.module.published) {
      EXPECT_EQ(rules[place], flows.size()) << round;
      EXPECT_EQ(bench.book.numRules(static_cast<uint8_t>(place.first),
                                    place.second == 1),
                flows.size())
          << round;
    }
  }
  EXPECT_GT(failed, 20);
}

}  // namespace
}  // namespace ofswitch
