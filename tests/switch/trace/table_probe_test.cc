// SPDX-License-Identifier: BSD-3-Clause
#include "switch/trace/table_probe.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/frame.h"
#include "tests/switch/live_bench.h"
#include "tests/switch/trace/trace_bench.h"

namespace ofswitch {
namespace {

using openflow_test::Bytes;

const std::vector<uint16_t> kGates = {1, 2, 3};

TableProbe::Session::Pass pass(TableProbe* probe, const Bytes& frame) {
  TableProbe::Session session(probe);
  return session.run(0, {std::string(frame.begin(), frame.end())}, 1);
}

// The first flow of a switch counts its packets with counter 1 and its bytes
// with counter 2: copies for a later table are counted behind these.
TEST(TableProbe, CountsWhatIsHandedOnBehindTheCountersOfFlows) {
  LiveBench bench({.flows = "tcp,actions=output:3,goto_table:1\n"});
  const Bytes frame = tcpTo(80).bytes();
  for (const uint32_t counters : {3u, 64u}) {
    SCOPED_TRACE(counters);
    TableProbe probe(kGates, counters);
    const auto one = pass(&probe, frame);
    EXPECT_TRUE(one.lookedUp);
    EXPECT_EQ(one.packetCounter, 1);
    ASSERT_EQ(one.copies.size(), 1u);
    EXPECT_EQ(one.copies[0].gate, 3);
    ASSERT_TRUE(one.handedOn.has_value());
    EXPECT_EQ(bytesOf(one.handedOn->bytes), frame);
  }
}

TEST(TableProbe, TellsThatNothingIsHandedOn) {
  LiveBench bench({.flows = "tcp,actions=output:3\n"});
  TableProbe probe(kGates, 3);
  const auto one = pass(&probe, tcpTo(80).bytes());
  EXPECT_EQ(one.packetCounter, 1);
  EXPECT_EQ(one.copies.size(), 1u);
  EXPECT_FALSE(one.handedOn.has_value());
}

// To the end of the last line of 64 bytes, as far as copies take it along.
TEST(TableProbe, TellsWhatIsBehindAFrameToTheEndOfItsLastLine) {
  LiveBench bench({.flows = "actions=output:3\n"});
  TableProbe probe(kGates, 64);
  for (const auto& [length, behind] : std::vector<std::pair<size_t, size_t>>{
           {14, 50}, {63, 1}, {64, 0}, {65, 63}, {128, 0}, {129, 63}}) {
    SCOPED_TRACE(length);
    const auto one = pass(&probe, Bytes(length, 0xee));
    ASSERT_EQ(one.copies.size(), 1u);
    EXPECT_EQ(bytesOf(one.copies[0].frame.bytes), Bytes(length, 0xee));
    EXPECT_EQ(bytesOf(one.copies[0].frame.behind), Bytes(behind, 0));
  }
}

// The classifiers that an instance is bound to end with it.
TEST(TableProbe, LeavesTheLiveTablesTheirClassifiersWhenItEnds) {
  LiveBench bench({.flows = "table=0,tcp,actions=goto_table:1\n"
                            "table=1,tcp,actions=output:3\n"});
  const Bytes frame = tcpTo(80).bytes();
  {
    TableProbe probe(kGates, 64);
    TableProbe::Session session(&probe);
    const ProbeFrame probed = {std::string(frame.begin(), frame.end())};
    EXPECT_TRUE(session.run(0, probed, 1).lookedUp);
    EXPECT_TRUE(session.run(1, probed, 1).lookedUp);
  }
  bench.receive(1, frame);
  EXPECT_THAT(bench.sentOnPort3(), testing::ElementsAre(frame));
}

TEST(TableProbe, TellsOfATableThatHasNoClassifier) {
  LiveBench bench({.flows = "actions=output:3\n"});
  TableProbe probe(kGates, 64);
  TableProbe::Session session(&probe);
  const auto one = session.run(9, {std::string(60, '\0')}, 1);
  EXPECT_FALSE(one.lookedUp);
  EXPECT_THAT(one.copies, testing::IsEmpty());
  EXPECT_EQ(one.packetCounter, std::nullopt);
}

}  // namespace
}  // namespace ofswitch
