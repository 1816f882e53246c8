// SPDX-License-Identifier: BSD-3-Clause
//
// Which updates DPDK's heap has room for, to the byte.
#include "switch/replay/update_room.h"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <rte_malloc.h>
#include <urcu-qsbr.h>

#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "modules/openflow/tables/update_memory.h"
#include "tests/switch/full_heap.h"
#include "tests/switch/live_bench.h"

namespace ofswitch {
namespace {

constexpr size_t kMb = size_t{1} << 20;
constexpr MemorySettings kSettings = {"--memory", "--build-memory"};

size_t greatestFree() {
  rte_malloc_socket_stats stats = {};
  rte_malloc_get_socket_stats(0, &stats);
  return stats.greatest_free_size;
}

TEST(UpdateMemory, CountsWhatEachStepTakes) {
  using Rule = of_flow_acl_rule_ipv6;
  EXPECT_EQ(heapBytes(1), 64 + 128);
  EXPECT_EQ(heapBytes(64), 64 + 128);
  EXPECT_EQ(heapBytes(65), 128 + 128);

  const UpdateMemory memory = updateMemory<Rule>(70, 5, 9);
  EXPECT_EQ(memory.store, 5 * (heapBytes(sizeof(OpenFlowEntry<Rule>)) +
                               heapBytes(sizeof(OpenFlowStore<Rule>::Node))));
  EXPECT_EQ(memory.rules, heapBytes(75 * sizeof(Rule)));
  EXPECT_EQ(memory.classifier, heapBytes(8192 + 9 * sizeof(Rule)));
  EXPECT_EQ(memory.actions, 9 * heapBytes(sizeof(OfFlowAction)));
  EXPECT_EQ(memory.all(),
            memory.store + memory.rules + memory.classifier + memory.actions);

  const UpdateMemory nothingLeft = updateMemory<Rule>(70, 0, 0);
  EXPECT_EQ(nothingLeft.all(), heapBytes(70 * sizeof(Rule)));
  const UpdateMemory oneLeft = updateMemory<Rule>(70, 0, 1);
  EXPECT_EQ(oneLeft.classifier, heapBytes(8192 + sizeof(Rule)));
}

class UpdateRoom : public testing::Test {
 protected:
  struct Update {
    int flows = 0;
    int deletes = 0;
    int adds = 0;
    bool ipv6 = false;
  };

  static std::string missing(const Update& one, Sender sender) {
    TableUpdate update;
    update.set_flowtype(one.ipv6 ? quil::pb::OPENFLOW_TYPE_IPV6
                                 : quil::pb::OPENFLOW_TYPE_IPV4);
    for (int i = 0; i < one.deletes; i++) update.add_deletes();
    for (int i = 0; i < one.adds; i++) update.add_adds();
    quil::pb::OpenFlowGetStatsRespArg stats;
    stats.set_numflows(one.ipv6 ? 3 : one.flows);
    stats.set_numipv6flows(one.ipv6 ? one.flows : 3);
    return missingRoom(update, stats, sender, kSettings);
  }

  // Fits into a block of `bytes`, and into none that is shorter.
  static void expectNeeds(size_t bytes, const Update& update, Sender sender) {
    {
      const FullHeap full(bytes);
      EXPECT_EQ(missing(update, sender), "");
    }
    const FullHeap full(bytes - 64);
    EXPECT_NE(missing(update, sender), "");
  }

  const LiveBench bench_{{}};
};

TEST_F(UpdateRoom, AddsLeaveAReserveForWhatUndoesThem) {
  using Rule = of_flow_acl_rule;
  const Update update = {.flows = 300, .deletes = 100, .adds = 50};
  expectNeeds(updateMemory<Rule>(300, 50, 250).all() + kMb, update,
              Sender::kOperator);
  expectNeeds(updateMemory<Rule>(300, 50, 200).all(), update, Sender::kUndo);
  expectNeeds(updateMemory<Rule>(300, 220, 220).all(),
              {.flows = 300, .deletes = 100, .adds = 220}, Sender::kUndo);
}

TEST_F(UpdateRoom, FlowsOfTheFamilyCount) {
  using Rule = of_flow_acl_rule_ipv6;
  expectNeeds(updateMemory<Rule>(300, 50, 250).all() + kMb,
              {.flows = 300, .deletes = 100, .adds = 50, .ipv6 = true},
              Sender::kOperator);
}

TEST_F(UpdateRoom, MoreDeletesThanFlowsLeaveNone) {
  using Rule = of_flow_acl_rule;
  expectNeeds(updateMemory<Rule>(10, 0, 0).all(), {.flows = 10, .deletes = 20},
              Sender::kOperator);
  expectNeeds(updateMemory<Rule>(10, 4, 4).all() + kMb,
              {.flows = 10, .deletes = 20, .adds = 4}, Sender::kOperator);
}

// Nothing but a build can fail then, and nothing is certain to be missing.
TEST_F(UpdateRoom, WithoutAddsThePartsMayLieApart) {
  const UpdateMemory memory = updateMemory<of_flow_acl_rule>(900, 0, 300);
  const Update update = {.flows = 900, .deletes = 600};
  const std::string refusal = "there is no room to build a classifier of 300 ";
  ASSERT_GT(memory.rules, memory.classifier);
  {
    const FullHeap full({memory.rules, memory.classifier, memory.actions});
    EXPECT_EQ(missing(update, Sender::kOperator), "");
    EXPECT_EQ(missing(update, Sender::kUndo), "");
    // An add needs one piece.
    EXPECT_NE(missing({.flows = 900, .deletes = 600, .adds = 1}, Sender::kUndo),
              "");
  }
  {
    const FullHeap full({memory.rules, memory.actions / 2});
    EXPECT_EQ(missing(update, Sender::kOperator).find(refusal), 0);
  }
  {
    const FullHeap full({memory.rules, memory.classifier, memory.actions / 2});
    EXPECT_EQ(missing(update, Sender::kOperator).find(refusal), 0);
  }
  {
    const FullHeap full(std::vector<size_t>(40, memory.classifier));
    EXPECT_EQ(missing(update, Sender::kOperator).find(refusal), 0);
  }
}

TEST_F(UpdateRoom, SaysHowMuchIsMissing) {
  using Rule = of_flow_acl_rule;
  const FullHeap full({5 * kMb, 2 * kMb});
  const size_t free = greatestFree() / kMb;
  ASSERT_EQ(free, 5);
  const size_t adds = updateMemory<Rule>(20'000, 9'000, 29'000).all() + kMb;
  const size_t wanted = adds / kMb + 1;
  EXPECT_EQ(missing({.flows = 20'000, .adds = 9'000}, Sender::kOperator),
            fmt::format("there is no room to add 9000 flows to 20000: that "
                        "takes {} MB of DPDK's memory in one piece, and 5 MB "
                        "are free; raise --memory by {} or more",
                        wanted, wanted - 5));
  const size_t build = updateMemory<Rule>(20'000, 0, 19'000).all();
  EXPECT_EQ(missing({.flows = 20'000, .deletes = 1000}, Sender::kOperator),
            fmt::format("there is no room to build a classifier of 19000 "
                        "flows: that takes {} MB of DPDK's memory in one "
                        "piece, and 5 MB are free; raise --memory by {} or "
                        "more",
                        build / kMb + 1, build / kMb + 1 - 5));
}

struct Retired {
  rcu_head head;  // first
  void* block;
};

void release(rcu_head* head) {
  rte_free(reinterpret_cast<Retired*>(head)->block);
}

TEST_F(UpdateRoom, WaitsForWhatIsOnItsWayBack) {
  const Update update = {.adds = 200};
  Retired retired = {{}, rte_malloc("retired", 4 * kMb, 64)};
  const FullHeap full(0);
  std::promise<void> reading;
  std::thread reader([&] {
    rcu_register_thread();
    reading.set_value();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    rcu_unregister_thread();
  });
  reading.get_future().wait();
  call_rcu(&retired.head, release);
  EXPECT_EQ(missing(update, Sender::kOperator), "");
  reader.join();
  rcu_barrier();
}

}  // namespace
}  // namespace ofswitch
