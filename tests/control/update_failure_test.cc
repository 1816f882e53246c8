// SPDX-License-Identifier: BSD-3-Clause
//
// Updates that fail before a build: what they answer, count and trace, what
// they keep and what they free.
#include <rte_malloc.h>

#include <algorithm>
#include <cerrno>
#include <new>

#include "control.h"
#include "tests/control/control_test.h"

namespace openflow_test {
namespace {

using testing::Contains;
using testing::ElementsAre;

constexpr const char* kFailed = "Failed to update flows";

class UpdateFailure : public FamilyTest {
 protected:
  UpdateFailure() {
    update(message().add(Flow(1, 10).counters(1, 1)).add(Flow(2, 20)));
    published_ = mine().data;
    numEntries_ = Calls::allocations("openflowentry").size();
    (void)heapUse();
    Calls::state().frees.clear();
  }

  // The entries of the update under test.
  std::vector<Calls::Allocation> newEntries() {
    auto entries = Calls::allocations("openflowentry");
    entries.erase(entries.begin(), entries.begin() + numEntries_);
    return entries;
  }

  void expectNothingChanged() {
    EXPECT_THAT(stored(), ElementsAre(1, 2));
    EXPECT_EQ(numFlows(), 2u);
    EXPECT_EQ(mine().data, published_);
    EXPECT_EQ(mine().generation, 1u);
  }

  // Failures counted for the table: updates, creates, adds of rules, builds.
  std::vector<uint64_t> counters() {
    EXPECT_TRUE(std::all_of(table(3).counters + 4, table(3).counters + 12,
                            [](uint64_t counter) { return counter == 0; }));
    return {table(3).counters, table(3).counters + 4};
  }

  const QuilModules::AclCtxData* published_;
  size_t numEntries_;
};

INSTANTIATE_FAMILIES(UpdateFailure);

// ---- No memory.

TEST_P(UpdateFailure, WithoutMemoryForAnEntryKeepsTheEntriesBefore) {
  Calls::state().failType = "openflowentry";
  Calls::state().failZmalloc = Calls::Fault::call(2);
  const TraceMark mark;
  EXPECT_THAT(module().updateFlows(message()
                                       .add(Flow(1, 1))
                                       .add(Flow(3, 1))
                                       .add(Flow(4, 1))
                                       .add(Flow(5, 1))),
              FailsWith(-ENOMEM, kFailed));
  EXPECT_THAT(
      traced(mark),
      ElementsAre("2 updateFlows tableId: 3 flowType: " + type(),
                  "2 processUpdateFlows tableId: 3 flowType: " + type() +
                      ", numAdds: 4, numDeletes: 0",
                  "0 processUpdateFlows Failed to allocate memory for flow "
                  "entries"));
  EXPECT_THAT(counters(), ElementsAre(1, 0, 0, 0));
  expectNothingChanged();

  const auto entries = newEntries();
  ASSERT_EQ(entries.size(), 3u) << "it stops at the one that fails";
  // The slot that failed is released once for each entry before it.
  EXPECT_THAT(Calls::state().frees, ElementsAre(nullptr, nullptr));
  rte_free(entries[0].result);
  rte_free(entries[1].result);
}

TEST_P(UpdateFailure, WithoutMemoryForTheFirstEntryFreesNothing) {
  Calls::state().failType = "openflowentry";
  Calls::state().failZmalloc = Calls::Fault::every();
  const HeapUse before = heapUse();
  EXPECT_THAT(module().updateFlows(message().add(Flow(1, 1)).add(Flow(3, 1))),
              FailsWith(-ENOMEM, kFailed));
  EXPECT_TRUE(Calls::state().frees.empty());
  EXPECT_EQ(heapUse(), before);
  expectNothingChanged();
}

TEST_P(UpdateFailure, WithoutMemoryForTheRulesFreesEveryEntry) {
  Calls::state().failType = "openflowallrules";
  Calls::state().failMalloc = Calls::Fault::call(0);
  const HeapUse before = heapUse();
  const TraceMark mark;
  EXPECT_THAT(
      module().updateFlows(message().add(Flow(1, 1)).add(Flow(3, 1)).erase(2)),
      FailsWith(-ENOMEM, kFailed));
  EXPECT_THAT(
      traced(mark),
      ElementsAre("2 updateFlows tableId: 3 flowType: " + type(),
                  "2 processUpdateFlows tableId: 3 flowType: " + type() +
                      ", numAdds: 2, numDeletes: 1",
                  "0 processUpdateFlows Failed to allocate memory for all acl "
                  "rules"));
  EXPECT_THAT(counters(), ElementsAre(1, 0, 0, 0));
  const auto entries = newEntries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_THAT(Calls::state().frees, testing::UnorderedElementsAre(
                                        entries[0].result, entries[1].result));
  EXPECT_EQ(heapUse(), before);
  expectNothingChanged();
  update(message().add(Flow(3, 1)));
  EXPECT_EQ(numFlows(), 3u);
}

TEST_P(UpdateFailure, WithoutMemoryForUserdataThrows) {
  Calls::state().failArrayNew = Calls::Fault::call(0);
  EXPECT_THROW(module().updateFlows(message().add(Flow(1, 1)).erase(2)),
               std::bad_alloc);
  expectNothingChanged();
  EXPECT_THAT(counters(), ElementsAre(0, 0, 0, 0));
}

TEST_P(UpdateFailure, WithoutMemoryForOneActionTheUpdateSucceeds) {
  Calls::state().failType = "openflowuserdata";
  Calls::state().failMalloc = Calls::Fault::call(1);
  const TraceMark mark;
  update(message().add(Flow(3, 30)));
  EXPECT_EQ(mark.texts(0),
            std::vector<std::string>{"makeAclUserdata Failed to allocate "
                                     "memory for userdata action"});
  const auto actions = publishedActions(mine());
  ASSERT_EQ(actions.size(), 3u);
  EXPECT_NE(actions[0], nullptr);
  EXPECT_EQ(actions[1], nullptr);
  EXPECT_NE(actions[2], nullptr);
  EXPECT_THAT(counters(), ElementsAre(0, 0, 0, 0));
  // A record without a block is released like any other.
  update(message().add(Flow(3, 30)));
  (void)heapUse();
  EXPECT_GT(Calls::countFrees(nullptr), 0);
}

// The list of entries lies on the stack of the thread that runs commands.
TEST_P(UpdateFailure, AMillionAddsFitTheCommandThreadsStack) {
  quil::pb::OpenFlowUpdateFlowsArg arg = message();
  for (int i = 0; i < 1'000'000; i++) arg.add_adds();
  Calls::state().failType = "openflowentry";
  Calls::state().failZmalloc = Calls::Fault::every();
  CommandResponse response;
  bess::ControlThread::Instance().Run(
      [&] { response = module().updateFlows(arg); });
  EXPECT_THAT(response, FailsWith(-ENOMEM, kFailed));
  expectNothingChanged();
}

using UpdateFailureDeathTest = UpdateFailure;

// The first, one in the middle and the last of three adds; one replaces a flow.
TEST_P(UpdateFailureDeathTest, WithoutMemoryForANodeIsFatal) {
  for (const int node : {0, 1, 2}) {
    EXPECT_DEATH(
        {
          Calls::state().failType = "RTE_KoRcuHt";
          Calls::state().failZmalloc = Calls::Fault::call(node);
          module().updateFlows(
              message().add(Flow(3, 1)).add(Flow(1, 1)).add(Flow(4, 1)));
        },
        "Check failed: 0 .*/src/QuilModules/RteAllocator:72");
  }
}

INSTANTIATE_FAMILIES(UpdateFailureDeathTest);

// ---- Updates that are refused before anything is touched.

TEST_P(UpdateFailure, OfATableFrom32UpTouchesNothing) {
  for (const uint32_t tableId : {32u, 35u, 259u, 0xffffffffu}) {
    const TraceMark mark;
    EXPECT_THAT(
        module().updateFlows(Update(tableId, GetParam()).add(Flow(1, 1))),
        FailsWith(-1, "Invalid table id"));
    EXPECT_THAT(traced(mark),
                ElementsAre("2 updateFlows tableId: " +
                            std::to_string(tableId) + " flowType: " + type()));
  }
  EXPECT_TRUE(newEntries().empty());
  EXPECT_THAT(counters(), ElementsAre(0, 0, 0, 0));
  expectNothingChanged();
}

std::vector<uint32_t> gates(uint32_t count) {
  return std::vector<uint32_t>(count, 1);
}

TEST_P(UpdateFailure, OfMoreThan64GatesAppliesNothing) {
  uint64_t failures = 0;
  for (const Flow& flow :
       {Flow(4, 1).output(gates(65)), Flow(4, 1).flood(gates(65)),
        Flow(4, 1).outputAll(gates(65))}) {
    const TraceMark mark;
    EXPECT_THAT(
        module().updateFlows(message().add(Flow(3, 1)).add(flow).erase(1)),
        FailsWith(-1, kFailed));
    EXPECT_TRUE(newEntries().empty());
    EXPECT_THAT(counters(), ElementsAre(++failures, 0, 0, 0));
    EXPECT_THAT(mark.texts(0),
                ElementsAre("processUpdateFlows flowId: 4 has 65 output gates, "
                            "at most 64 fit"));
    expectNothingChanged();
  }
  update(message().add(Flow(4, 1).output(gates(64))));
  EXPECT_EQ(numFlows(), 3u);
}

TEST_P(UpdateFailure, IsNoneWhenMoreThan64GatesAreListedForNoOutput) {
  quil::pb::OpenFlowUpdateFlowsArg arg =
      message().add(Flow(4, 1).output(gates(65)));
  arg.mutable_adds(0)->mutable_action()->mutable_fields()->set_setoutputport(
      false);
  EXPECT_THAT(module().updateFlows(arg), Succeeds());
  EXPECT_THAT(counters(), ElementsAre(0, 0, 0, 0));
  EXPECT_EQ(numFlows(), 3u);
}

// ---- A table that is not bound.

class Unbound : public ControlTest, public testing::WithParamInterface<int> {};

INSTANTIATE_FAMILIES(Unbound);

TEST_P(Unbound, TableKeepsItsFlowsUntilItIsBound) {
  const HeapUse before = heapUse();
  const TraceMark mark;
  EXPECT_THAT(module().updateFlows(
                  Update(8, GetParam()).add(Flow(1, 1)).add(Flow(2, 1))),
              FailsWith(-1, kFailed));
  EXPECT_THAT(mark.texts(0),
              Contains("processUpdateFlows Failed to program acl rules for "
                       "tableId: 8, flowType: " +
                       std::to_string(GetParam())));
  EXPECT_EQ(heapUse().blocks, before.blocks + 4) << "entries and nodes";
  EXPECT_TRUE(Calls::liveArrays(userdataSize(3)).empty());
  EXPECT_EQ(table(8).counters[0], 1u);
  EXPECT_THAT(storedFlows(table(8), GetParam()), ElementsAre(1, 2));
  EXPECT_TRUE(Calls::state().aclCreates.empty());

  EXPECT_THAT(module().updateFlows(Update(8, GetParam()).erase(2)),
              FailsWith(-1, kFailed));
  EXPECT_EQ(table(8).counters[0], 2u);

  bind(8);
  EXPECT_EQ(slotOf(8, GetParam()).data, nullptr) << "binding publishes nothing";
  update(Update(8, GetParam()));
  EXPECT_EQ(publishedActions(slotOf(8, GetParam())).size(), 1u);
  EXPECT_EQ(slotOf(8, GetParam()).generation, 1u);
}

TEST_P(Unbound, EmptyTableFailsToo) {
  EXPECT_THAT(module().updateFlows(Update(8, GetParam())),
              FailsWith(-1, kFailed));
  EXPECT_EQ(table(8).counters[0], 1u);
}

}  // namespace
}  // namespace openflow_test
