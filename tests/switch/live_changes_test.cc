// SPDX-License-Identifier: BSD-3-Clause
//
// Flows of a running switch change.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <random>
#include <thread>

#include "switch/live/live_switch.h"
#include "tests/support/frame.h"
#include "tests/support/kept_for_good.h"
#include "tests/support/time_limit.h"
#include "tests/switch/explosive_flows.h"
#include "tests/switch/live_bench.h"
#include "tests/switch/live_policy.h"
#include "tests/switch/refuse_build.h"
#include "tests/switch/too_many_tries.h"
#include "utils/acl_build_memory.h"

namespace ofswitch {
namespace {

using openflow_test::Bytes;
using openflow_test::Frame;
using openflow_test::ip4;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

TEST(LiveChanges, PacketsAfterTheAnswerMeetTheNewFlows) {
  LiveBench bench({});
  for (int round = 0; round < 40; round++) {
    const pb::FlowChangeReply reply =
        bench.add(round % 2 == 0 ? "in_port=1,actions=output:3"
                                 : "in_port=1,actions=drop");
    ASSERT_TRUE(reply.applied());
    ASSERT_EQ(reply.builds_size(), 1);
    bench.receive(1, tcpTo(80), 3);
  }
  const pb::StatsReply stats = bench.settled();
  EXPECT_EQ(stats.packets_sent(), 60);
  EXPECT_EQ(LiveBench::drops(stats, "drop_action"), 60);
  EXPECT_EQ(bench.entries()[0].n_packets(), 120);
  EXPECT_EQ(stats.flow_changes(), 40);
}

TEST(LiveChanges, FlowsChangeUnderTrafficOfTwoWorkersAndNothingIsLost) {
  LiveBench bench({.workers = 2, .flows = kPolicy});
  std::atomic<bool> done = false;
  const auto traffic = [&](uint16_t port) {
    std::mt19937 random(port);
    while (!done) {
      std::vector<Bytes> frames;
      for (int i = 0; i < 64; i++) {
        frames.push_back(tcpTo(static_cast<uint16_t>(79 + random() % 5))
                             .ttl(static_cast<uint8_t>(random() % 4)));
      }
      bench.receive(port, frames);
    }
  };
  std::thread one([&] { traffic(1); });
  std::thread two([&] { traffic(2); });
  for (int round = 0; round < 60; round++) {
    const std::string text = fmt::format(
        "table=0,in_port=2,actions={}\n"
        "table={},tcp,tp_dst=80,actions=dec_ttl,output:3\n",
        round % 3 == 0 ? "goto_table:5" : "dec_ttl,goto_table:6",
        5 + round % 2);
    EXPECT_TRUE(bench.add(text).applied());
    if (round % 7 == 0) {
      EXPECT_TRUE(bench.change(pb::FLOW_OPERATION_DELETE, "table=0,in_port=2")
                      .applied());
    }
    if (round % 5 == 0) {
      const pb::StatsReply stats = bench->stats();
      EXPECT_TRUE(stats.closes());
    }
  }
  pb::StatsRequest pause;
  pause.set_pause(true);
  const pb::StatsReply underTraffic = bench->stats(pause);
  EXPECT_TRUE(underTraffic.exact());
  EXPECT_THAT(underTraffic.discrepancies(), IsEmpty());
  // Readings that nobody pauses it for say when packets were under way.
  const auto end = std::chrono::steady_clock::now() +
                   openflow_test::timeLimit(std::chrono::seconds(10));
  bool isMoving = false;
  uint64_t received = 0;
  while ((!isMoving || received <= 1000) &&
         std::chrono::steady_clock::now() < end) {
    const pb::StatsReply reading = bench->stats();
    isMoving |= !reading.exact() && reading.packets_in_flight() > 0;
    received = reading.packets_received();
  }
  EXPECT_TRUE(isMoving);
  done = true;
  one.join();
  two.join();
  const pb::StatsReply stats = bench.settled();
  EXPECT_GT(stats.packets_received(), 1000);
  EXPECT_GT(stats.packets_sent(), 0);
  EXPECT_EQ(LiveBench::drops(stats, "lookup_failed"), 0);
  uint64_t ended = stats.packets_forwarded();
  for (const char* cause : {"table_miss", "drop_action", "ttl_expired",
                            "no_output", "no_buffer_for_table"}) {
    ended += LiveBench::drops(stats, cause);
  }
  EXPECT_EQ(ended, stats.packets_received());
}

TEST(LiveChanges, TenThousandFlowsAreOneBuildATableAndFamily) {
  LiveBench bench({.counters = 1u << 16});
  std::string text;
  for (int i = 0; i < 10000; i++) {
    text += fmt::format("table={},tcp,nw_dst=10.0.{}.{},actions=output:3\n",
                        i % 2, i / 256, i % 256);
  }
  const pb::FlowChangeReply reply = bench.add(text);
  EXPECT_TRUE(reply.applied()) << reply.failure();
  EXPECT_EQ(reply.added(), 10000);
  ASSERT_EQ(reply.builds_size(), 2);
  EXPECT_EQ(reply.builds(0).adds(), 5000);
  EXPECT_EQ(reply.builds(1).adds(), 5000);
  bench.receive(1,
                Frame::eth().ipv4(ip4("10.9.9.9"), ip4("10.0.3.2")).tcp(5, 6));
  EXPECT_EQ(bench.settled().packets_sent(), 1);
  EXPECT_EQ(bench.entries("table=0,ip,nw_dst=10.0.3.2")[0].n_packets(), 1);

  // One more, one less: the difference is all that is sent.
  const pb::FlowChangeReply difference = bench.change(
      pb::FLOW_OPERATION_REPLACE,
      text.substr(text.find('\n') + 1) + "table=0,arp,actions=drop\n");
  EXPECT_EQ(difference.unchanged(), 9999);
  ASSERT_EQ(difference.builds_size(), 1);
  EXPECT_EQ(difference.builds(0).adds(), 1);
  EXPECT_EQ(difference.builds(0).deletes(), 1);
  EXPECT_EQ(difference.builds(0).flows(), 5001);
}

TEST(LiveChanges, FailedBuildChangesNothingForPackets) {
  LiveBench bench({.flows = kPolicy});
  const std::vector<pb::FlowEntry> before = bench.entries();
  // Table 4 is built first and taken back when table 0 fails.
  RefuseBuild refuse(1);
  const pb::FlowChangeReply reply = bench.add(
      "table=0,in_port=1,priority=20,actions=drop\n"
      "table=4,tcp,tp_dst=80,priority=60,actions=drop\n");
  EXPECT_FALSE(reply.applied());
  EXPECT_EQ(reply.failure(),
            "table 0 IPv4: its classifier could not be built: either DPDK's "
            "memory has no room for it (memory.mb), or its flows need more "
            "tries than a classifier can have and belong in more tables, see "
            "docs/flow-sets.md; all flows are as they were");
  ASSERT_EQ(reply.builds_size(), 4);
  EXPECT_TRUE(reply.builds(2).is_inverse());
  const std::vector<pb::FlowEntry> after = bench.entries();
  ASSERT_EQ(after.size(), before.size());
  for (size_t i = 0; i < after.size(); i++) {
    EXPECT_EQ(after[i].flow(), before[i].flow());
  }
  bench.receive(1, tcpTo(80), 4);
  const pb::StatsReply stats = bench.settled();
  EXPECT_EQ(stats.packets_sent(), 4);
  EXPECT_EQ(stats.flow_changes(), 0);
  const pb::TablesReply tables = bench->tables({});
  EXPECT_EQ(tables.tables(0).ipv4().failed_builds(), 1);
  EXPECT_EQ(tables.tables(0).counters(3).name(), "aclBuildFailures");
  EXPECT_EQ(tables.tables(0).counters(3).value(), 1);
}

TEST(LiveChanges, WhatCouldNotBeUndoneIsBuiltLater) {
  LiveBench bench({.flows = kPolicy});
  const auto table0 = [&] { return bench->tables({}).tables(0).ipv4(); };
  const uint64_t before = table0().builds();
  const RefuseBuild refuse(0, 2);
  const pb::FlowChangeReply reply =
      bench.add("table=0,in_port=1,priority=20,actions=drop\n");
  EXPECT_THAT(reply.failure(),
              HasSubstr("undoing it failed in table 0 IPv4, "
                        "which is tried again within a minute"));
  bench->expireFlows();
  EXPECT_EQ(table0().failed_builds(), 2);
  EXPECT_EQ(table0().builds(), before + 3);
}

// Table 4 keeps the classifier of a change that was taken back.
TEST(LiveChanges, APacketIsNotTracedByAFlowThatIsGone) {
  LiveBench bench({.flows = kPolicy});
  pb::TraceRequest packet;
  packet.set_text("in_port=1,tcp,tp_dst=80,table=4");
  EXPECT_EQ(bench->trace(packet).refusal(), "");
  {
    const RefuseBuild refuse(1, 10);
    EXPECT_FALSE(bench
                     .add("table=0,in_port=1,priority=20,actions=drop\n"
                          "table=4,tcp,tp_dst=80,priority=60,actions=drop\n")
                     .applied());
    EXPECT_EQ(bench->trace(packet).refusal(),
              "table 4 matches by a flow that is gone, because a classifier "
              "could not be built; it is tried again within a minute");
  }
  bench.pass(std::chrono::minutes(1));
  bench->expireFlows();
  const pb::TraceReply reply = bench->trace(packet);
  EXPECT_EQ(reply.refusal(), "");
  EXPECT_GT(reply.outputs_size(), 0);
}

TEST(LiveChanges, ABuildBeyondItsMemoryIsRefused) {
  LiveBench bench({.flows = kPolicy, .counters = 16384});
  const size_t limit = Dpdk::aclBuildLimit();
  Dpdk::setAclBuildLimit(size_t{64} << 20);
  const std::vector<pb::FlowEntry> before = bench.entries();
  // The build that fails leaks, which is not what is tested here.
  const openflow_test::KeptForGood records;
  const pb::FlowChangeReply reply = bench.add(openflow_test::explosiveFlows());
  Dpdk::setAclBuildLimit(limit);
  EXPECT_EQ(reply.refusals_size(), 0);
  EXPECT_FALSE(reply.applied());
  EXPECT_EQ(reply.failure(),
            "table 0 IPv4: its classifier needs more than 64 MB to build "
            "(memory.build_mb): fields that some flows leave open and others "
            "fix multiply, see docs/flow-sets.md; all flows are as they were");
  EXPECT_THAT(bench.entries(), SizeIs(before.size()));
  bench.receive(1, tcpTo(80), 4);
  EXPECT_EQ(bench.settled().packets_sent(), 4);
  EXPECT_TRUE(bench.add("table=0,udp,actions=drop").applied());
}

TEST(LiveChanges, FlowsOfMoreTriesThanThereAreAreRefused) {
  LiveBench bench({.flows = kPolicy, .counters = 16384});
  const std::vector<pb::FlowEntry> before = bench.entries();
  // The build that fails leaks, which is not what is tested here.
  const openflow_test::KeptForGood records;
  const pb::FlowChangeReply reply =
      bench.add(openflow_test::flowsOfTooManyTries());
  EXPECT_EQ(reply.refusals_size(), 0);
  EXPECT_FALSE(reply.applied());
  EXPECT_THAT(
      reply.failure(),
      HasSubstr("table 0 IPv6: its flows need more tries than a classifier can "
                "have (ACL: Exceeded max number of tries: 8) and belong in "
                "more tables, see docs/flow-sets.md; all flows are as they "
                "were"));
  EXPECT_THAT(bench.entries(), SizeIs(before.size()));
  bench.receive(1, tcpTo(80), 4);
  EXPECT_EQ(bench.settled().packets_sent(), 4);
  EXPECT_TRUE(bench.add("table=0,udp,actions=drop").applied());
}

TEST(LiveChanges, RefusedRequestsNameTheirLineAndChangeNothing) {
  LiveBench bench({.flows = kPolicy});
  const pb::FlowChangeReply reply = bench.add(
      "in_port=1,actions=output:3\n"
      "in_port=1,nw_dts=10.0.0.1,actions=drop\n");
  EXPECT_FALSE(reply.applied());
  ASSERT_EQ(reply.refusals_size(), 1);
  EXPECT_EQ(reply.refusals(0).name(), "request");
  EXPECT_EQ(reply.refusals(0).line(), 2);
  EXPECT_EQ(reply.refusals(0).reason(),
            "unknown field \"nw_dts\", did you mean \"nw_dst\"?");
  EXPECT_EQ(reply.builds_size(), 0);
  EXPECT_THAT(bench.dump(), SizeIs(6));
  EXPECT_EQ(
      bench.change(pb::FLOW_OPERATION_UNSPECIFIED, "").refusals(0).reason(),
      "the operation must be one of add, delete and replace");
  pb::FlowFilter filter;
  filter.set_text("priority=3");
  EXPECT_THROW(bench->dumpFlows(filter, [](const auto&) { return true; }),
               BadRequest);
}

TEST(LiveChanges, FlowsInMessagesMeanWhatTheirTextMeans) {
  LiveBench bench({});
  pb::FlowChange change;
  change.set_operation(pb::FLOW_OPERATION_ADD);
  pb::FlowMessage* flow = change.add_flows();
  flow->set_table(2);
  flow->set_priority(7);
  flow->set_cookie(0xabc);
  flow->set_hard_timeout(9);
  flow->add_match()->set_name("tcp");
  auto* field = flow->add_match();
  field->set_name("nw_dst");
  field->set_value("10.0.0.0/8");
  flow->add_actions("dec_ttl");
  flow->add_actions("output:3");
  EXPECT_TRUE(bench->changeFlows(change).applied());
  EXPECT_EQ(bench.entries()[0].flow(),
            "table=2,priority=7,cookie=0xabc,hard_timeout=9,tcp,"
            "nw_dst=10.0.0.0/8,actions=dec_ttl,output:3");

  field->set_value("10.0.0.0/8,in_port=1");
  EXPECT_EQ(bench->changeFlows(change).refusals(0).reason(),
            "value \"10.0.0.0/8,in_port=1\" is not one word of flow text");
  pb::FlowChange removal;
  removal.set_operation(pb::FLOW_OPERATION_DELETE);
  removal.add_flows()->set_cookie(0xabc);
  EXPECT_EQ(bench->changeFlows(removal).removed(), 1);
}

}  // namespace
}  // namespace ofswitch
