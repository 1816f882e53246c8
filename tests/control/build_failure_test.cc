// SPDX-License-Identifier: BSD-3-Clause
//
// Builds that fail. The flows stay changed, the slot keeps its classifier, and
// the userdata array of the build is kept as well, with all it owns.
#include <urcu-qsbr.h>

#include <utility>

#include "tests/control/control_test.h"

namespace openflow_test {
namespace {

using testing::ElementsAre;

struct Step {
  Calls::Fault Calls::State::*fault;
  int counter;
  bool hasContext;   // which it frees
  std::string text;  // of the trace
};

class BuildFailure : public FamilyTest {
 protected:
  BuildFailure() {
    update(message().add(Flow(1, 10)).add(Flow(2, 20)));
    published_ = mine().data;
  }

  // Replaces flow 2 by flow 3 in an update that fails at `step`, and checks
  // everything that it leaves.
  void expectFailure(const Step& step);

  // One userdata array of `records` records that is in no slot.
  QuilModules::KoAclUserdata* keptUserdata(size_t records);

  const QuilModules::AclCtxData* published_;
};

INSTANTIATE_FAMILIES(BuildFailure);

QuilModules::KoAclUserdata* BuildFailure::keptUserdata(size_t records) {
  rcu_barrier();  // what is retired is not kept
  std::vector<void*> arrays = Calls::liveArrays(userdataSize(records));
  for (uint32_t id = 0; id < 2 * kNumTables; id++) {
    if (slot(id).data != nullptr) std::erase(arrays, slot(id).data->userdata);
  }
  EXPECT_EQ(arrays.size(), 1u);
  return arrays.empty() ? nullptr
                        : static_cast<QuilModules::KoAclUserdata*>(arrays[0]);
}

void BuildFailure::expectFailure(const Step& step) {
  Calls::state().*step.fault = Calls::Fault::call(0);
  const TraceMark mark;
  EXPECT_THAT(module().updateFlows(message().add(Flow(3, 5)).erase(2)),
              FailsWith(-1, "Failed to update flows"));

  EXPECT_THAT(mark.texts(0),
              ElementsAre(step.text,
                          "processUpdateFlows Failed to program acl rules for "
                          "tableId: 3, flowType: " +
                              type()));
  EXPECT_TRUE(mark.contains("programAcl aclCtxName: " + contextName(2) +
                            ", numFlows: 2"));

  // The update and the step.
  std::vector<uint64_t> expected(12, 0);
  expected[step.counter] = 1;
  expected[0] = 1;
  EXPECT_EQ(std::vector<uint64_t>(std::begin(table(3).counters),
                                  std::end(table(3).counters)),
            expected);

  EXPECT_THAT(stored(), ElementsAre(1, 3));
  EXPECT_EQ(numFlows(), 2u);
  EXPECT_EQ(mine().data, published_);
  EXPECT_EQ(publishedActions(mine()).size(), 2u);
  EXPECT_EQ(mine().generation, 2u) << "the number is used up";

  const rte_acl_ctx* ctx = Calls::state().aclCreates.back().result;
  EXPECT_EQ(Calls::state().aclFrees, step.hasContext
                                         ? std::vector<const void*>{ctx}
                                         : std::vector<const void*>{});
  const void* rules = Calls::allocations("openflowallrules").back().result;
  EXPECT_EQ(Calls::countFrees(rules), 1);

  // Three flows were expected, and record 0.
  QuilModules::KoAclUserdata* userdata = keptUserdata(4);
  ASSERT_NE(userdata, nullptr);
  EXPECT_EQ(userdata[0].action, nullptr);
  for (const int i : {1, 2}) {
    EXPECT_NE(userdata[i].action, nullptr);
    EXPECT_EQ(Calls::countFrees(userdata[i].action), 0);
  }
  EXPECT_EQ(userdata[3].action, nullptr);
  freeKeptUserdata(userdata, 4);

  // The next build takes everything, under the next number.
  update(message());
  EXPECT_NE(mine().data, published_);
  EXPECT_EQ(publishedActions(mine()).size(), 2u);
  EXPECT_EQ(mine().generation, 3u);
  EXPECT_EQ(Calls::state().aclCreates.back().name, contextName(3));
  EXPECT_EQ(table(3).counters[0], 1u);
}

TEST_P(BuildFailure, OfTheContext) {
  expectFailure({&Calls::State::failAclCreate, 1, false,
                 "programAcl Failed to create rte acl context: " +
                     contextName(2) + " for tableId: 3, flowType: " + type()});
}

TEST_P(BuildFailure, OfTheRules) {
  expectFailure(
      {&Calls::State::failAclAddRules, 2, true,
       "programAcl Failed to add acl rules for aclCtx: " + contextName(2) +
           ", tableId: 3, flowType: " + type() + ", numFlows: 2 error: -12"});
}

TEST_P(BuildFailure, OfTheBuildItself) {
  expectFailure({&Calls::State::failAclBuild, 3, true,
                 "programAcl Failed to build acl for tableId: 3, flowType: " +
                     type() + " error: -12"});
}

// Nothing that publication does can fail; an update is ready for it all the
// same. There is no counter for it but the update's.
TEST_P(BuildFailure, OfThePublication) {
  expectFailure(
      {&Calls::State::failPublish, 0, true,
       "programAcl Failed to update acl context for tableId: 3, flowType: " +
           type() + " error: -1"});
}

// Which one of several updates fails is nothing to the others.
TEST_P(BuildFailure, OfTheFirstAMiddleAndTheLastUpdate) {
  constexpr std::pair<uint32_t, int> kPlaces[] = {
      {4, kIpv4}, {4, kIpv6}, {5, kIpv4}, {6, kIpv6}};
  for (const uint32_t t : {4, 5, 6}) bind(t);
  uint32_t priority = 1;
  const auto updateAll = [&] {
    std::vector<bool> failed;
    for (const auto& [t, family] : kPlaces) {
      const Update flow = Update(t, family).add(Flow(1, priority));
      failed.push_back(module().updateFlows(flow).has_error());
    }
    return failed;
  };
  const auto published = [&] {
    std::vector<uint32_t> priorities;
    for (const auto& [t, family] : kPlaces) {
      priorities.push_back(publishedActions(slotOf(t, family))[0]->priority);
    }
    return priorities;
  };
  updateAll();
  for (const auto fault :
       {&Calls::State::failAclCreate, &Calls::State::failAclAddRules,
        &Calls::State::failAclBuild, &Calls::State::failPublish}) {
    for (const int failing : {0, 2, 3}) {
      std::vector<uint32_t> expected(4, ++priority);
      expected[failing] = priority - 1;
      Calls::state().*fault = Calls::Fault::call(failing);
      std::vector<bool> failed(4, false);
      failed[failing] = true;
      EXPECT_EQ(updateAll(), failed);
      EXPECT_EQ(published(), expected);
      freeKeptUserdata(keptUserdata(3), 3);
      EXPECT_EQ(updateAll(), std::vector<bool>(4, false));
      EXPECT_EQ(published(), std::vector<uint32_t>(4, priority));
    }
  }
  const auto failures = [&](uint32_t t) {
    return std::vector<uint64_t>(table(t).counters, table(t).counters + 4);
  };
  EXPECT_THAT(failures(4), ElementsAre(4, 1, 1, 1));
  EXPECT_THAT(failures(5), ElementsAre(4, 1, 1, 1));
  EXPECT_THAT(failures(6), ElementsAre(4, 1, 1, 1));
}

TEST_P(BuildFailure, OfAPriorityThatTheLibraryRefuses) {
  const TraceMark mark;
  EXPECT_THAT(module().updateFlows(message().add(Flow(3, 0x20000000))),
              FailsWith(-1, "Failed to update flows"));
  EXPECT_THAT(
      mark.texts(0),
      ElementsAre(
          "programAcl Failed to add acl rules for aclCtx: " + contextName(2) +
              ", tableId: 3, flowType: " + type() + ", numFlows: 3 error: -22",
          testing::StartsWith("processUpdateFlows Failed")));
  EXPECT_EQ(table(3).counters[2], 1u);
  freeKeptUserdata(keptUserdata(4), 4);
  update(message().erase(3));
}

TEST_P(BuildFailure, DoesNotKeepATableFromBeingEmptied) {
  Calls::state().failAclBuild = Calls::Fault::call(0);
  EXPECT_TRUE(module().updateFlows(message()).has_error());
  freeKeptUserdata(keptUserdata(3), 3);
  update(message().erase(1).erase(2));
  EXPECT_EQ(mine().data, nullptr);
  EXPECT_EQ(mine().generation, 2u);
}

}  // namespace
}  // namespace openflow_test
