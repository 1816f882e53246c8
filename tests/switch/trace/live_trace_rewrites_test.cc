// SPDX-License-Identifier: BSD-3-Clause
//
// Rewrites after which a frame has fields no more that it had before.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/frame.h"
#include "tests/switch/live_bench.h"
#include "tests/switch/trace/trace_bench.h"

namespace ofswitch {
namespace {

using openflow_test::Bytes;
using openflow_test::Frame;
using openflow_test::hex;
using testing::ElementsAre;

std::vector<std::string> rewrites(const pb::TraceReply& reply) {
  std::vector<std::string> texts;
  for (const pb::TraceReply::Rewrite& one : reply.steps(0).rewrites()) {
    texts.push_back(
        fmt::format("{} {} -> {}", one.field(), one.before(), one.after()));
  }
  return texts;
}

// Behind a tag nobody looks for SNAP: its length is the type, and what follows
// is no IP packet.
TEST(LiveTraceRewrites, ATagHidesWhatFollowsSnap) {
  LiveBench bench({.flows = "actions=mod_vlan_vid:5,output:3\n"});
  const pb::TraceReply reply =
      traceFrame(&bench, Frame::eth().snap().ipv4(1, 2).tcp(1000, 80).bytes());
  ASSERT_EQ(reply.outputs_size(), 1);
  EXPECT_THAT(rewrites(reply),
              ElementsAre("dl_type 0x0800 -> 0x0030", "dl_vlan none -> 5",
                          "dl_vlan_pcp none -> 0"));
}

// Without its tag the frame ends before its addresses do.
TEST(LiveTraceRewrites, WhatIsLeftIsNoWholeHeader) {
  LiveBench bench({.flows = "actions=strip_vlan,output:3\n"});
  const Bytes frame = Frame::eth().vlan(5, 3).ipv4(1, 2).keep(15).bytes();
  const pb::TraceReply reply = traceFrame(&bench, frame);
  ASSERT_EQ(reply.outputs_size(), 1);
  EXPECT_EQ(hex(bytesOf(reply.outputs(0).frame())), hex(frame).substr(0, 22));
  EXPECT_THAT(rewrites(reply),
              ElementsAre("dl_src 02:00:00:00:00:05 -> 02:00:00:00:00:00",
                          "dl_vlan 0 -> none", "dl_vlan_pcp 3 -> none"));
}

}  // namespace
}  // namespace ofswitch
