// SPDX-License-Identifier: BSD-3-Clause
//
// A program of its own: the packet pool is made once a process.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/frame.h"
#include "tests/switch/live_bench.h"

namespace ofswitch {
namespace {

using openflow_test::Bytes;
using openflow_test::Frame;
using openflow_test::ip4;

// Nearly all buffers wait to be received: there are none for copies, neither
// those that leave nor those that go on to the next table. All of them are
// missed by name.
TEST(DryPool, EveryMissingCopyIsAccountedFor) {
  constexpr uint64_t kReceived = 490;
  LiveBench bench({.flows = "in_port=1,actions=output:3,goto_table:1\n"
                            "table=1,in_port=1,actions=output:3\n",
                   .buffers = 511});
  const Bytes frame =
      Frame::eth().ipv4(ip4("10.0.0.1"), ip4("10.0.0.2")).udp(1, 2);
  bench.receiveAtOnce(1, std::vector<Bytes>(kReceived, frame));
  const pb::StatsReply stats = bench.settled();
  const uint64_t lostForTable = LiveBench::drops(stats, "no_buffer_for_table");
  const uint64_t lostForOutput =
      LiveBench::drops(stats, "no_buffer_for_output");
  EXPECT_GT(lostForTable, 0);
  EXPECT_GT(lostForOutput, 0);
  EXPECT_EQ(stats.packets_received(), kReceived);
  EXPECT_EQ(stats.packets_forwarded() + lostForTable, kReceived);
  // Each table sends a copy of what reaches it.
  EXPECT_EQ(stats.copies_output() + lostForOutput,
            kReceived + kReceived - lostForTable);
  EXPECT_EQ(stats.packets_sent(), stats.copies_output());
}

}  // namespace
}  // namespace ofswitch
