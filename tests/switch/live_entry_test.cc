// SPDX-License-Identifier: BSD-3-Clause
//
// What a listing says of one flow.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "switch/live/flow_report.h"
#include "tests/switch/live_book.h"

namespace ofswitch {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

class FlowEntries : public testing::Test {
 protected:
  // The entry of the only flow that `filter` selects, as of now.
  pb::FlowEntry entry(const std::string& filter, bool noStats = false) const {
    return flowEntry(bench_.only(filter), bench_.now, noStats);
  }

  BookBench bench_;
};

// Four packets of 250 bytes match the flow and one of 100 its guard; the flow
// is as old as 5.678 s and has rested for 2.5 of them.
TEST_F(FlowEntries, TellAllOfAFlow) {
  bench_.add(
      "table=3,priority=7,cookie=0x2a,idle_timeout=60,hard_timeout=900,tcp,"
      "tp_dst=80,actions=dec_ttl,output:2");
  const InstalledFlow flow = *bench_.only("tcp").installed;
  ASSERT_THAT(flow.guards, testing::SizeIs(1));
  bench_.now += 3178ms;
  for (int i = 0; i < 4; i++) bench_.hit(flow.rule, 250);
  bench_.hit(flow.guards[0], 100);
  bench_.book.noteUse(bench_.now);
  bench_.now += 2500ms;

  const pb::FlowEntry told = entry("tcp");
  EXPECT_EQ(told.flow(),
            "table=3,priority=7,cookie=0x2a,idle_timeout=60,hard_timeout=900,"
            "tcp,tp_dst=80,actions=dec_ttl,output:2");
  EXPECT_EQ(told.table(), 3u);
  EXPECT_EQ(told.priority(), 7u);
  EXPECT_EQ(told.cookie(), 0x2au);
  EXPECT_EQ(told.idle_timeout(), 60u);
  EXPECT_EQ(told.hard_timeout(), 900u);
  EXPECT_EQ(told.match(), "tcp,tp_dst=80");
  EXPECT_THAT(told.actions(), ElementsAre("dec_ttl", "output:2"));
  EXPECT_EQ(told.n_packets(), 5u);
  EXPECT_EQ(told.n_bytes(), 1100u);
  EXPECT_EQ(told.duration_ns(), 5'678'000'000u);
  EXPECT_EQ(told.idle_age_ns(), 2'500'000'000u);
  EXPECT_EQ(told.ttl_expired_packets(), 1u);
  EXPECT_FALSE(told.ipv6());
  EXPECT_EQ(told.flow_id(), flow.rule.flowId);
  EXPECT_EQ(told.module_priority(), flow.rule.priority);
  EXPECT_NE(told.module_priority(), told.priority());
  EXPECT_EQ(told.packet_counter(), flow.rule.packetCounterId);
  EXPECT_EQ(told.byte_counter(), flow.rule.byteCounterId);
  EXPECT_FALSE(told.built_in());
  EXPECT_EQ(told.origin(), "test:1");
  EXPECT_EQ(told.text(),
            "cookie=0x2a, duration=5.678s, table=3, n_packets=5, n_bytes=1100, "
            "idle_timeout=60, hard_timeout=900, idle_age=2, priority=7,tcp,"
            "tp_dst=80 actions=dec_ttl,output:2");
  EXPECT_EQ(entry("tcp", true).text(),
            "cookie=0x2a, table=3, idle_timeout=60, hard_timeout=900, "
            "priority=7,tcp,tp_dst=80 actions=dec_ttl,output:2");
}

TEST_F(FlowEntries, SayNothingOfWhatAFlowHasNot) {
  bench_.add("priority=1,ipv6,actions=drop\nactions=output:1");
  const pb::FlowEntry v6 = entry("ipv6");
  EXPECT_TRUE(v6.ipv6());
  EXPECT_EQ(v6.text(),
            "cookie=0x0, duration=0.000s, table=0, n_packets=0, n_bytes=0, "
            "idle_age=0, priority=1,ipv6 actions=drop");
  const pb::FlowEntry all = entry("out_port=1");
  EXPECT_EQ(all.match(), "");
  EXPECT_EQ(all.text(),
            "cookie=0x0, duration=0.000s, table=0, n_packets=0, n_bytes=0, "
            "idle_age=0, priority=32768 actions=output:1");
}

// Nobody wrote them.
TEST_F(FlowEntries, OfTheSwitchItselfAreMarked) {
  bench_.add("");
  const auto views = bench_.book.select({}, true);
  ASSERT_THAT(views, testing::SizeIs(1));
  const pb::FlowEntry miss = flowEntry(views[0], bench_.now, false);
  EXPECT_TRUE(miss.built_in());
  EXPECT_EQ(miss.origin(), "");
  EXPECT_EQ(miss.packet_counter(), views[0].installed->rule.packetCounterId);
}

// A listing is written out after it was made, and a packet may have come
// since.
TEST_F(FlowEntries, HaveNoAgeBelowZero) {
  bench_.add("in_port=1,actions=drop");
  const FlowBook::View view = bench_.only("in_port=1");
  const pb::FlowEntry told = flowEntry(view, bench_.now - 3s, false);
  EXPECT_EQ(told.duration_ns(), 0u);
  EXPECT_EQ(told.idle_age_ns(), 0u);
}

}  // namespace
}  // namespace ofswitch
