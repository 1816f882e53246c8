// SPDX-License-Identifier: BSD-3-Clause
//
// Traces of packets that have many outputs.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/support/frame.h"
#include "tests/switch/live_bench.h"
#include "tests/switch/trace/trace_bench.h"

namespace ofswitch {
namespace {

using openflow_test::Bytes;
using openflow_test::Frame;

// Flows that send to 63 ports and on to the next table, from table 0 on.
std::string chainOf(int tables) {
  std::string flows;
  for (int table = 0; table < tables; table++) {
    flows += fmt::format("table={},actions=", table);
    for (int port = 10; port < 73; port++) {
      flows += fmt::format("output:{},", port);
    }
    flows += fmt::format("goto_table:{}\n", table + 1);
  }
  return flows;
}

TEST(LongTrace, OfALongFrameThroughAllTables) {
  LiveBench bench(
      {.flows = chainOf(31) + "table=31,actions=output:8191,output:3\n"});
  const Bytes frame =
      Frame::eth().ipv4(1, 2).udp(1, 2).payload(size_t{9000}).bytes();
  const pb::TraceReply reply = traceFrame(&bench, frame);
  ASSERT_EQ(reply.steps_size(), 32);
  EXPECT_EQ(reply.steps(30).outputs_size(), 63);
  EXPECT_EQ(reply.steps(31).outputs_size(), 2);
  EXPECT_EQ(reply.outputs_size() + reply.outputs_left_out(), 31 * 63 + 2);
  EXPECT_GT(reply.outputs_left_out(), 0);
  EXPECT_LE(reply.ByteSizeLong(), 2u << 20);
  EXPECT_EQ(bytesOf(reply.outputs(0).frame()), frame);

  const pb::TraceReply last = traceFrame(&bench, frame, 1, 31);
  ASSERT_EQ(last.outputs_size(), 2);
  EXPECT_EQ(last.outputs(0).port(), 8191);
  EXPECT_EQ(bytesOf(last.outputs(0).frame()), frame);
  EXPECT_EQ(bytesOf(last.outputs(1).frame()), frame);
}

TEST(LongTrace, TellsOfAMebibyteOfCopies) {
  LiveBench bench({.flows = chainOf(17)});
  const Bytes frame =
      Frame::eth().ipv4(1, 2).udp(1, 2).payload(size_t{982}).bytes();
  ASSERT_EQ(frame.size(), 1024u);
  const pb::TraceReply reply = traceFrame(&bench, frame);
  EXPECT_EQ(reply.outputs_size(), 1024);
  EXPECT_EQ(reply.outputs_left_out(), 17u * 63 - 1024);
}

}  // namespace
}  // namespace ofswitch
