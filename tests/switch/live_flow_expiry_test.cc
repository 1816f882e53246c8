// SPDX-License-Identifier: BSD-3-Clause
//
// Flows that go by themselves: when, and as what they are counted.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "switch/live/flow_book.h"
#include "tests/switch/live_book.h"

namespace ofswitch {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::IsEmpty;
using testing::SizeIs;

TEST(FlowExpiry, HardTimeoutCountsFromInstallation) {
  BookBench bench;
  bench.add("hard_timeout=10,in_port=1,actions=output:2");
  bench.now += milliseconds(9999);
  bench.hit(bench.only("in_port=1").installed->rule);
  EXPECT_THAT(bench.book.planExpiry(bench.now).steps, IsEmpty());
  bench.now += milliseconds(1);
  FlowBook::Plan plan = bench.book.planExpiry(bench.now);
  EXPECT_EQ(plan.expiredHard, 1);
  EXPECT_EQ(plan.expiredIdle, 0);
  EXPECT_EQ(bench.make(std::move(plan)).removed(), 1);
  EXPECT_THAT(bench.texts(), IsEmpty());
}

TEST(FlowExpiry, IdleTimeoutCountsFromTheLastPacket) {
  BookBench bench;
  bench.add("idle_timeout=3,ip,actions=dec_ttl,output:2");
  const auto view = bench.only("ip");
  for (int second = 0; second < 20; second++) {
    bench.now += seconds(1);
    // A packet that the guard drops has used the flow, too.
    if (second % 2 == 0) {
      bench.hit(view.installed->guards[0]);
    }
    EXPECT_THAT(bench.book.planExpiry(bench.now).steps, IsEmpty()) << second;
  }
  EXPECT_EQ(bench.only("ip").lastUsed, bench.now - seconds(1));
  bench.now += seconds(2);
  FlowBook::Plan plan = bench.book.planExpiry(bench.now);
  EXPECT_EQ(plan.expiredIdle, 1);
  EXPECT_EQ(plan.expiredHard, 0);
  bench.make(std::move(plan));
  EXPECT_THAT(bench.texts(), IsEmpty());
}

// It has not been used, but not for so long either.
TEST(FlowExpiry, IdleTimeoutOfAnUnusedFlowCountsFromInstallation) {
  BookBench bench;
  bench.add("idle_timeout=3,in_port=1,actions=output:2");
  EXPECT_EQ(bench.only("in_port=1").lastUsed, bench.now);
  bench.now += milliseconds(2999);
  EXPECT_THAT(bench.book.planExpiry(bench.now).steps, IsEmpty());
  EXPECT_THAT(bench.book.planExpiry(bench.now + milliseconds(1)).steps,
              SizeIs(1));
  // Adding it again is as good as installing it.
  bench.add("idle_timeout=3,in_port=1,actions=output:2");
  EXPECT_EQ(bench.only("in_port=1").lastUsed, bench.now);
  bench.now += milliseconds(2999);
  EXPECT_THAT(bench.book.planExpiry(bench.now).steps, IsEmpty());
}

// Counts that start anew are no use of the flow.
TEST(FlowExpiry, ResettingCountsDoesNotProlongIt) {
  BookBench bench;
  const std::string flow = "idle_timeout=3,in_port=1,actions=output:2";
  bench.add(flow);
  bench.hit(bench.only("in_port=1").installed->rule);
  bench.book.noteUse(bench.now);
  bench.add(flow, true);
  const FlowBook::Time installed = bench.now;
  bench.now += seconds(2);
  EXPECT_THAT(bench.book.planExpiry(bench.now).steps, IsEmpty());
  EXPECT_EQ(bench.only("in_port=1").lastUsed, installed);
  bench.now += seconds(1);
  EXPECT_THAT(bench.book.planExpiry(bench.now).steps, SizeIs(1));
}

TEST(FlowExpiry, BothAtOnceIsTheHardOne) {
  BookBench bench;
  bench.add(
      "idle_timeout=4,hard_timeout=4,in_port=1,actions=output:2\n"
      "idle_timeout=4,hard_timeout=9,in_port=2,actions=output:2\n"
      "in_port=3,actions=output:2\n");
  bench.now += seconds(4);
  const FlowBook::Plan plan = bench.book.planExpiry(bench.now);
  EXPECT_EQ(plan.expiredHard, 1u);
  EXPECT_EQ(plan.expiredIdle, 1u);
  EXPECT_EQ(plan.removed, 2u);
}

}  // namespace
}  // namespace ofswitch
