// SPDX-License-Identifier: BSD-3-Clause
//
// What is told of tables, of counts that were made up.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "switch/live/switch_report.h"
#include "tests/switch/live_book.h"

namespace ofswitch {
namespace {

using testing::ElementsAre;
using testing::Pair;

TEST(TablesReply, HasTheModulesCountersUnderTheirNames) {
  SwitchCounts counts;
  quil::pb::OpenFlowGetStatsRespArg& stats = counts.tables[3];
  stats.set_updatefailures(1);
  stats.set_aclcreatefailures(2);
  stats.set_acladdrulesfailures(3);
  stats.set_aclbuildfailures(4);
  stats.set_classifyerrors(5);
  stats.set_noaclctx(6);
  stats.set_noclassifier(7);
  stats.set_batchdrops(8);
  stats.set_tablemisses(9);
  stats.set_sparecounter(10);
  stats.set_dropactions(11);
  stats.set_nooutputdrops(12);
  BookBench bench;
  const pb::TablesReply reply =
      tablesReply(counts, SwitchAccount(), bench.book, bench.programmer, true);
  ASSERT_EQ(reply.tables_size(), 32);
  std::vector<std::pair<std::string, uint64_t>> told;
  for (const auto& counter : reply.tables(3).counters()) {
    told.emplace_back(counter.name(), counter.value());
  }
  EXPECT_THAT(
      told,
      ElementsAre(Pair("updateFailures", 1), Pair("aclCreateFailures", 2),
                  Pair("aclAddRulesFailures", 3), Pair("aclBuildFailures", 4),
                  Pair("classifyErrors", 5), Pair("noAclCtx", 6),
                  Pair("noClassifier", 7), Pair("batchDrops", 8),
                  Pair("tableMisses", 9), Pair("spareCounter", 10),
                  Pair("dropActions", 11), Pair("noOutputDrops", 12)));
}

TEST(TablesReply, HasTheHistoryOfBuilds) {
  BookBench bench;
  bool isSlow = true;
  FlowProgrammer programmer(
      &bench.book,
      {[&](const TableUpdate& update, Sender) {
         std::this_thread::sleep_for(std::chrono::milliseconds(isSlow ? 5 : 1));
         isSlow = false;
         return bench.module.take(update);
       },
       [] {}});
  bench.module.failures = {2};
  for (const char* flow : {"in_port=1", "in_port=2", "in_port=3"}) {
    pb::FlowChangeReply reply;
    programmer.make(
        bench.book.planAdd(
            BookBench::flows(std::string(flow) + ",actions=drop"), false),
        bench.now, {}, &reply);
  }
  const pb::TablesReply reply = tablesReply(SwitchCounts(), SwitchAccount(),
                                            bench.book, programmer, false);
  ASSERT_EQ(reply.tables_size(), 1);
  const auto& told = reply.tables(0).ipv4();
  EXPECT_EQ(told.flows(), 3u) << "two and the miss flow";
  EXPECT_EQ(reply.tables(0).flows(), 2u);
  EXPECT_EQ(told.builds(), 4u) << "the inverse of the third is one, too";
  EXPECT_EQ(told.failed_builds(), 1u);
  const BuildHistory& history = programmer.history(0, false);
  EXPECT_EQ(told.last_build_ns(), static_cast<uint64_t>(history.last.count()));
  EXPECT_EQ(told.longest_build_ns(),
            static_cast<uint64_t>(history.longest.count()));
  EXPECT_EQ(told.total_build_ns(),
            static_cast<uint64_t>(history.total.count()));
  EXPECT_EQ(reply.tables(0).ipv6().builds(), 0u);
}

TEST(TablesReply, HasTheTablesThatAreUsed) {
  BookBench bench;
  bench.add("table=2,ipv6,actions=drop");  // and table 0 drops the rest
  SwitchAccount account;
  account.tables[7].entered = 1;
  const pb::TablesReply used =
      tablesReply(SwitchCounts(), account, bench.book, bench.programmer, false);
  std::vector<uint32_t> numbers;
  for (const pb::Table& table : used.tables()) numbers.push_back(table.table());
  EXPECT_THAT(numbers, ElementsAre(0, 2, 7));
  EXPECT_EQ(used.tables(1).ipv6().flows(), 1);
  EXPECT_EQ(used.tables(1).ipv4().flows(), 0);
}

}  // namespace
}  // namespace ofswitch
