// SPDX-License-Identifier: BSD-3-Clause
//
// What flows send to the controller, explained from its punted copy, and what
// they send nowhere.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "switch/trace/trace_text.h"
#include "tests/support/frame.h"
#include "tests/switch/live_bench.h"
#include "tests/switch/trace/trace_bench.h"

namespace ofswitch {
namespace {

using testing::HasSubstr;
using testing::UnorderedElementsAre;

TEST(LiveTraceController, TellsTheReason) {
  LiveBench bench({.flows =
                       "table=0,priority=0,actions=controller\n"
                       "table=1,tcp,actions=controller(reason=invalid_ttl)\n"
                       "table=2,tcp,actions=controller\n"});
  const auto output = [&](uint32_t table) {
    const pb::TraceReply reply =
        traceFrame(&bench, tcpTo(80).bytes(), 1, table);
    EXPECT_EQ(reply.outputs_size(), 1);
    EXPECT_EQ(reply.outputs(0).port(), 0u);
    EXPECT_TRUE(reply.outputs(0).connected());
    return reply.steps(0).outputs(0);
  };
  EXPECT_EQ(output(0), "controller, reason no_match");
  EXPECT_EQ(output(1), "controller, reason invalid_ttl");
  EXPECT_EQ(output(2), "controller, reason action");
}

// The copy has a header and a tail around the frame, which are no rewrites.
TEST(LiveTraceController, ReadsRewritesFromTheCopy) {
  LiveBench bench({.flows = "tcp,actions=mod_dl_dst:02:00:00:00:00:77,"
                            "mod_tp_dst:8080,controller\n"
                            "udp,actions=controller\n"});
  const pb::TraceReply reply = traceFrame(&bench, tcpTo(80).bytes());
  ASSERT_EQ(reply.steps(0).rewrites_size(), 2);
  EXPECT_THAT(traceText(reply),
              HasSubstr("  set     dl_dst 02:00:00:00:00:0d -> "
                        "02:00:00:00:00:77\n"
                        "  set     tp_dst 80 -> 8080\n"
                        "  output  controller, reason action\n"
                        "leaves by controller: 80 bytes\n"));
  const pb::TraceReply plain = traceFrame(
      &bench, openflow_test::Frame::eth().ipv4(1, 2).udp(3, 4).bytes());
  EXPECT_EQ(plain.steps(0).rewrites_size(), 0);
}

// With a port beside the controller the rewrites are read from its copy.
TEST(LiveTraceController, MayBeBesideAPort) {
  LiveBench bench({.flows = "actions=mod_vlan_vid:5,controller,output:2\n"});
  const pb::TraceReply reply = traceFrame(&bench, tcpTo(80).bytes());
  EXPECT_EQ(reply.refusal(), "");
  ASSERT_EQ(reply.steps(0).rewrites_size(), 2);
  EXPECT_EQ(reply.steps(0).rewrites(0).field(), "dl_vlan");
  EXPECT_EQ(reply.steps(0).rewrites(1).field(), "dl_vlan_pcp");
  EXPECT_THAT(reply.steps(0).outputs(),
              UnorderedElementsAre("controller, reason action", "port 2"));
}

TEST(LiveTraceDrops, SaysThatAFlowSendsNowhere) {
  LiveBench bench({.flows = "tcp,actions=output:1\n"
                            "table=1,tcp,actions=mod_tp_dst:7\n"
                            "table=2,tcp,nw_ttl=1,actions=dec_ttl,output:2\n"});
  const pb::TraceReply back = traceFrame(&bench, tcpTo(80).bytes());
  EXPECT_EQ(back.outputs_size(), 0);
  EXPECT_THAT(traceText(back),
              HasSubstr("  note    not to port 1: the packet came in there, "
                        "and only the action in_port sends back\n"
                        "nothing leaves the switch\n"));
  const pb::TraceReply none = traceFrame(&bench, tcpTo(80).bytes(), 1, 1);
  EXPECT_EQ(none.steps(0).drop().name(), "no_output");
  EXPECT_EQ(none.steps(0).flow().match(), "tcp");
  const pb::TraceReply expired =
      traceFrame(&bench, tcpTo(80).ttl(1).bytes(), 1, 2);
  EXPECT_EQ(expired.steps(0).drop().name(), "ttl_expired");
  EXPECT_EQ(expired.steps(0).flow().match(), "tcp,nw_ttl=1");
}

// The switch adds a flow for misses only to tables that flows lead to; this one
// has no more than the operator's.
TEST(LiveTraceDrops, MissesInATableWithoutAFlowForThem) {
  LiveBench bench({.flows = "table=9,tcp,tp_dst=81,actions=output:3\n"});
  const pb::TraceReply reply = traceFrame(&bench, tcpTo(80).bytes(), 1, 9);
  ASSERT_EQ(reply.steps_size(), 1);
  EXPECT_EQ(reply.steps(0).drop().name(), "table_miss");
  EXPECT_EQ(reply.steps(0).notes_size(), 0);
  EXPECT_THAT(traceText(reply),
              HasSubstr("  match   none\n"
                        "  near    table=9,priority=32768,tcp,tp_dst=81,"
                        "actions=output:3\n"
                        "          tp_dst is 80, not 81\n"
                        "  drop    table_miss: No flow of the table matched "
                        "the packet.\n"
                        "nothing leaves the switch\n"));
}

}  // namespace
}  // namespace ofswitch
