// SPDX-License-Identifier: BSD-3-Clause
//
// DPDK's heap has no more: whatever is asked of the switch, it runs on.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rte_malloc.h>
#include <urcu-qsbr.h>

#include <chrono>
#include <set>
#include <string>
#include <vector>

#include "modules/openflow/tables/update_memory.h"
#include "tests/support/kept_for_good.h"
#include "tests/switch/full_heap.h"
#include "tests/switch/live_bench.h"
#include "tests/switch/live_policy.h"
#include "tests/switch/refuse_build.h"

namespace ofswitch {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::UnorderedElementsAre;

constexpr size_t kKb = 1024;

size_t allocated() {
  rte_malloc_socket_stats stats = {};
  rte_malloc_get_socket_stats(0, &stats);
  return stats.heap_allocsz_bytes;
}

std::string hosts(int count) {
  std::string text;
  for (int i = 0; i < count; i++) {
    text += fmt::format("table=9,tcp,nw_dst=10.9.{}.{},actions=output:3\n",
                        i / 256, i % 256);
  }
  return text;
}

class LiveFullHeap : public testing::Test {
 protected:
  // The flows from before take packets where they say.
  void expectItForwards() {
    const uint64_t before = bench_.settled().packets_sent();
    bench_.receive(1, tcpTo(80), 4);
    EXPECT_EQ(bench_.settled().packets_sent(), before + 4);
  }
  pb::Table::Classifier table0() { return bench_->tables({}).tables(0).ipv4(); }

  // Builds that fail leak, which is not what is tested here.
  const openflow_test::KeptForGood records_;
  LiveBench bench_{{.flows = kPolicy}};
};

TEST(HeapBytes, AreWhatTheHeapGivesUpForABlock) {
  const LiveBench bench({});
  rcu_barrier();
  for (const size_t size : {size_t{1}, size_t{64}, size_t{65}, size_t{1000},
                            sizeof(OpenFlowEntry<of_flow_acl_rule>)}) {
    const FullHeap full(1 << 20);
    const size_t before = allocated();
    void* block = rte_malloc("block", size, 64);
    EXPECT_EQ(allocated() - before, heapBytes(size)) << size;
    rte_free(block);
  }
}

// Tracing has buffers, a module and tables of its own, which it keeps from its
// first success on: each of them comes to lack memory on the way there.
TEST_F(LiveFullHeap, PacketsAreTracedOrRefused) {
  pb::TraceRequest request;
  request.set_text("in_port=1,tcp,nw_dst=10.0.0.2,tp_dst=80");
  std::set<std::string> refusals;
  bool isTraced = false;
  for (size_t kb = 1300; kb < 1400 && !isTraced; kb++) {
    const FullHeap full(kb * kKb);
    const std::string refusal = bench_->trace(request).refusal();
    isTraced = refusal.empty();
    if (!isTraced) refusals.insert(refusal);
  }
  EXPECT_TRUE(isTraced);
  EXPECT_THAT(refusals,
              UnorderedElementsAre(
                  HasSubstr("cannot make a pool of 511 packets"),
                  "there is not enough memory to trace a packet",
                  "the packet cannot be traced: Failed to update flows"));
  EXPECT_EQ(bench_->trace(request).refusal(), "");
  expectItForwards();
}

TEST_F(LiveFullHeap, FlowsAreAddedOrRefused) {
  const std::string flows = hosts(200);
  int applied = 0;
  int refused = 0;
  std::vector<size_t> sizes = {1024, 1280, 1536, 2048, 8192};
  for (size_t kb = 0; kb < 1024; kb += 32) sizes.push_back(kb);
  for (const size_t kb : sizes) {
    pb::FlowChangeReply reply;
    {
      const FullHeap full(kb * kKb);
      reply = bench_.add(flows);
      expectItForwards();
    }
    if (reply.applied()) {
      applied++;
    } else if (reply.builds_size() == 0) {
      refused++;
      EXPECT_THAT(reply.failure(),
                  MatchesRegex("table 9 IPv4: there is no room to add 200 "
                               "flows to 0: that takes 2 MB of DPDK's memory "
                               "in one piece, and [01] MB are free; raise "
                               "memory.mb by [12] or more; all flows are as "
                               "they were"))
          << kb;
    }
    EXPECT_EQ(bench_.entries("table=9").size(), reply.applied() ? 200 : 0);
    EXPECT_TRUE(bench_.add(flows).applied()) << kb;
    EXPECT_TRUE(bench_.change(pb::FLOW_OPERATION_DELETE, "table=9").applied());
  }
  EXPECT_GT(applied, 0);
  EXPECT_GE(refused, 32);
}

TEST_F(LiveFullHeap, FlowsAreRemovedWhileTheirOwnMemoryLasts) {
  ASSERT_TRUE(bench_.add(hosts(200)).applied());
  {
    const FullHeap full(128 * kKb);
    EXPECT_TRUE(
        bench_.change(pb::FLOW_OPERATION_DELETE, "table=9,tcp").applied());
  }
  {
    const FullHeap full(0);
    const pb::FlowChangeReply reply =
        bench_.change(pb::FLOW_OPERATION_DELETE, "table=4,tcp,tp_dst=81");
    EXPECT_THAT(reply.failure(),
                HasSubstr("there is no room to build a classifier of "));
    EXPECT_EQ(reply.builds_size(), 0);
    expectItForwards();
  }
  EXPECT_TRUE(bench_.change(pb::FLOW_OPERATION_DELETE, "table=4,tcp,tp_dst=81")
                  .applied());
}

TEST_F(LiveFullHeap, ABuildWithoutRoomIsNotTried) {
  const pb::Table::Classifier before = table0();
  {
    const RefuseBuild refuse(0, 2);
    EXPECT_FALSE(
        bench_.add("table=0,in_port=1,priority=20,actions=drop\n").applied());
  }
  {
    const FullHeap full(0);
    const size_t bytes = allocated();
    for (int second = 0; second < 100; second++) {
      bench_.pass(std::chrono::seconds(1));
      bench_->expireFlows();
    }
    EXPECT_EQ(table0().failed_builds(), before.failed_builds() + 2);
    EXPECT_EQ(table0().builds(), before.builds() + 2);
    EXPECT_LE(allocated(), bytes);
  }
  bench_->expireFlows();
  EXPECT_EQ(table0().builds(), before.builds() + 3);
  EXPECT_EQ(table0().failed_builds(), before.failed_builds() + 2);
}

// Each build that fails keeps a little for good.
TEST_F(LiveFullHeap, BuildsThatFailAreTriedLessAndLessOften) {
  ASSERT_TRUE(bench_.add(hosts(200)).applied());
  const RefuseBuild refuse(0, 1000);
  EXPECT_FALSE(bench_.add("table=9,in_port=1,actions=drop\n").applied());
  const auto failures = [&] {
    const pb::TablesReply reply = bench_->tables({});
    for (const pb::Table& table : reply.tables()) {
      if (table.table() == 9) return table.ipv4().failed_builds();
    }
    return uint64_t{0};
  };
  EXPECT_EQ(failures(), 2);
  rcu_barrier();
  const size_t before = allocated();
  for (int second = 0; second < 60; second++) {
    bench_->expireFlows();
    bench_.pass(std::chrono::seconds(1));
  }
  // After 0, 1, 3, 7, 15 and 31 seconds.
  EXPECT_EQ(failures(), 2 + 6);
  EXPECT_LE(allocated() - before, 6 * 201 * heapBytes(sizeof(OfFlowAction)));
}

}  // namespace
}  // namespace ofswitch
