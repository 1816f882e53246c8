// SPDX-License-Identifier: BSD-3-Clause
#include "switch/trace/table_probe.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rte_mempool.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/frame.h"
#include "tests/switch/live_bench.h"
#include "tests/switch/refuse_build.h"
#include "tests/switch/trace/trace_bench.h"

namespace ofswitch {
namespace {

using openflow_test::Bytes;

const std::vector<uint16_t> kGates = {1, 2, 3};

TableProbe::Session::Pass pass(TableProbe* probe, const Bytes& frame) {
  TableProbe::Session session(probe);
  return session.run(0, {std::string(frame.begin(), frame.end())}, 1);
}

std::string errorOf(const std::function<void()>& fn) {
  try {
    fn();
  } catch (const ProbeError& error) {
    return error.what();
  }
  return "";
}

std::set<rte_mempool*> allPools() {
  std::set<rte_mempool*> pools;
  rte_mempool_walk(
      [](rte_mempool* pool, void* set) {
        static_cast<std::set<rte_mempool*>*>(set)->insert(pool);
      },
      &pools);
  return pools;
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

// A frame of two buffers gives the first one back when there is no second.
TEST(TableProbe, SaysThatNoBufferIsFree) {
  LiveBench bench({.flows = "actions=output:3\n"});
  const std::set<rte_mempool*> others = allPools();
  TableProbe probe(kGates, 64);
  std::set<rte_mempool*> own = allPools();
  for (rte_mempool* pool : others) own.erase(pool);
  ASSERT_EQ(own.size(), 1u);
  rte_mempool* pool = *own.begin();
  const Bytes frame(bess::Packet::kDataRoom + 1, 0xee);
  const auto error = [&] { return errorOf([&] { pass(&probe, frame); }); };
  std::vector<void*> taken;
  for (void* buffer; rte_mempool_get(pool, &buffer) == 0;) {
    taken.push_back(buffer);
  }
  EXPECT_EQ(error(), "no packet buffer is free for the trace");
  EXPECT_EQ(rte_mempool_avail_count(pool), 0u);
  rte_mempool_put(pool, taken.back());
  EXPECT_EQ(error(), "no packet buffer is free for the trace");
  EXPECT_EQ(rte_mempool_avail_count(pool), 1u);
  taken.pop_back();
  for (void* buffer : taken) rte_mempool_put(pool, buffer);
  EXPECT_EQ(error(), "");
  EXPECT_EQ(rte_mempool_avail_count(pool), taken.size() + 1);
}

// Nothing is kept of the one that could not be made.
TEST(TableProbe, IsMadeAnewWhenItsTablesCouldNotBe) {
  LiveBench bench({.flows = "actions=output:3\n"});
  const std::set<rte_mempool*> pools = allPools();
  const Bytes frame = tcpTo(80).bytes();
  {
    const RefuseBuild refuse(0);
    EXPECT_EQ(traceFrame(&bench, frame).refusal(),
              "the packet cannot be traced: Failed to update flows");
  }
  EXPECT_EQ(allPools(), pools);
  const pb::TraceReply reply = traceFrame(&bench, frame);
  EXPECT_EQ(reply.refusal(), "");
  EXPECT_EQ(reply.outputs_size(), 1);
}

// A switch that has stopped has unloaded it.
TEST(TableProbe, NeedsTheModule) {
  LiveBench({}).stop();
  const std::set<rte_mempool*> pools = allPools();
  EXPECT_EQ(errorOf([] { TableProbe(kGates, 64); }),
            "there is no module class OpenFlow");
  EXPECT_EQ(allPools(), pools);
}

}  // namespace
}  // namespace ofswitch
