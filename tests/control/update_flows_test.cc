// SPDX-License-Identifier: BSD-3-Clause
//
// The command "updateFlows" where everything goes well.
#include <algorithm>
#include <cstddef>

#include "tests/control/control_test.h"

namespace openflow_test {
namespace {

using testing::ElementsAre;

// The counter indexes tell flows apart in what is published.
Flow flowOf(uint32_t flowId, uint32_t version, uint32_t priority = 10) {
  return Flow(flowId, priority).counters(flowId, version);
}

// Flow and version of everything that a slot publishes, in order of flows.
std::vector<std::pair<uint32_t, uint32_t>> published(
    const QuilModules::AclCtx& slot) {
  std::vector<std::pair<uint32_t, uint32_t>> flows;
  for (const OfFlowAction* action : publishedActions(slot)) {
    flows.emplace_back(action->packetCounterId, action->byteCounterId);
  }
  std::ranges::sort(flows);
  return flows;
}

class UpdateFlows : public FamilyTest {
 protected:
  QuilModules::AclCtx& others() { return slotOf(3, 1 - GetParam()); }

  size_t ruleSize() const { return ipv6() ? 432 : 352; }
  size_t entrySize() const {
    return ipv6() ? sizeof(OpenFlowEntry<of_flow_acl_rule_ipv6>)
                  : sizeof(OpenFlowEntry<of_flow_acl_rule>);
  }
};

INSTANTIATE_FAMILIES(UpdateFlows);

TEST_P(UpdateFlows, StoresAndPublishesEveryAdd) {
  update(
      message().add(flowOf(5, 1)).add(flowOf(0, 1)).add(flowOf(0xffffffff, 1)));
  EXPECT_EQ(numFlows(), 3u);
  EXPECT_THAT(stored(), ElementsAre(0, 5, 0xffffffff));
  EXPECT_THAT(published(mine()), ElementsAre(std::pair(0, 1), std::pair(5, 1),
                                             std::pair(0xffffffff, 1)));
  EXPECT_EQ(table(3).counters[0], 0u);
}

TEST_P(UpdateFlows, KeepsWhatEarlierUpdatesAdded) {
  update(message().add(flowOf(1, 1)));
  update(message().add(flowOf(2, 1)));
  EXPECT_EQ(numFlows(), 2u);
  EXPECT_THAT(published(mine()), ElementsAre(std::pair(1, 1), std::pair(2, 1)));
}

TEST_P(UpdateFlows, TracesEveryStepInOrder) {
  update(message().add(flowOf(7, 1)));
  const TraceMark mark;
  update(message().add(flowOf(7, 2, 20)).erase(9));
  const std::string slot = ipv6() ? "ipv6-2" : "2";
  EXPECT_THAT(
      traced(mark),
      ElementsAre(
          "2 updateFlows tableId: 3 flowType: " + type(),
          "2 processUpdateFlows tableId: 3 flowType: " + type() +
              ", numAdds: 1, numDeletes: 1",
          "2 addFlow tableId: 3, flowType: " + type() +
              ", flowId: 7, priority: 20",
          "2 addFlow Flow modification for flowId: 7",
          "2 makeAclRule flowType: " + type() + ", flowId: 7, priority: 20",
          "2 makeAction flowId: 7, priority: 20",
          "2 deleteFlow tableId: 3, flowType: " + type() + ", flowId: 9",
          "2 deleteFlow Flow not found for flowId: 9",
          "2 programAcl tableId: 3, flowType: " + type(),
          "2 void OpenFlow::makeAclUserdata(OfFlowAction*, KoAclUserdata*): ",
          "2 programAcl aclCtxName: table3-" + slot + ", numFlows: 1",
          "2 int OpenFlow::updateAclCtx(AclCtx*, rte_acl_ctx*, "
          "KoAclUserdata*, unsigned int): ",
          "5 updateAclCtx Allocating new acl context user data"));
}

TEST_P(UpdateFlows, TextGetsTheEnabledLevelsOnly) {
  std::vector<std::string> steps;
  {
    const TextTrace text(1 << 2);
    update(message().add(flowOf(7, 1)));
    steps = text.lines();
  }
  ASSERT_FALSE(steps.empty());
  EXPECT_EQ(steps.front(), "updateFlows tableId: 3 flowType: " + type());
  EXPECT_THAT(steps, testing::Not(testing::Contains(
                         testing::HasSubstr("updateAclCtx Allocating"))));
  const TextTrace failures(1 << 0);
  update(message().add(flowOf(7, 1)));
  EXPECT_TRUE(failures.lines().empty());
}

TEST_P(UpdateFlows, AnEmptyMessageOnAnEmptyTableAllocatesNothing) {
  const size_t before = Calls::state().allocations.size();
  const TraceMark mark;
  update(message());
  EXPECT_EQ(Calls::state().allocations.size(), before);
  EXPECT_TRUE(Calls::liveArrays(userdataSize(1)).empty());
  EXPECT_EQ(mine().data, nullptr);
  EXPECT_EQ(mine().generation, 0u);
  EXPECT_THAT(
      traced(mark),
      ElementsAre(
          "2 updateFlows tableId: 3 flowType: " + type(),
          "2 processUpdateFlows tableId: 3 flowType: " + type() +
              ", numAdds: 0, numDeletes: 0",
          "2 programAcl tableId: 3, flowType: " + type(),
          "2 programAcl No more flows for tableId: 3, flowType: " + type(),
          testing::StartsWith("2 int OpenFlow::updateAclCtx(")));
}

TEST_P(UpdateFlows, AnEmptyMessageRebuilds) {
  update(message().add(flowOf(1, 1)));
  const QuilModules::AclCtxData* before = mine().data;
  update(message());
  EXPECT_NE(mine().data, before);
  EXPECT_EQ(mine().generation, 2u);
  EXPECT_THAT(published(mine()), ElementsAre(std::pair(1, 1)));
}

TEST_P(UpdateFlows, DeletingEveryFlowEmptiesTheSlot) {
  update(message().add(flowOf(1, 1)).add(flowOf(2, 1)));
  const TraceMark mark;
  update(message().erase(2).erase(1));
  EXPECT_EQ(numFlows(), 0u);
  EXPECT_TRUE(stored().empty());
  EXPECT_EQ(mine().data, nullptr);
  EXPECT_EQ(mine().generation, 1u);
  EXPECT_TRUE(
      mark.contains("programAcl No more flows for tableId: 3, "
                    "flowType: " +
                    type()));
}

TEST_P(UpdateFlows, AModificationReplacesRuleAndAction) {
  update(message().add(flowOf(1, 1).ipProto(6).decTtl().output({1, 2})));
  update(message().add(flowOf(1, 2).l4DstPort(80).popVlan()));
  EXPECT_EQ(numFlows(), 1u);
  ASSERT_THAT(published(mine()), ElementsAre(std::pair(1, 2)));
  const OfFlowAction& action = *publishedActions(mine())[0];
  EXPECT_TRUE(action.fields.popVlan);
  EXPECT_FALSE(action.fields.decTtl);
  EXPECT_FALSE(action.fields.setOutputPort);
  EXPECT_EQ(action.values.numOutputGates, 0);
  const Calls::AclAddRules& rules = Calls::state().aclAdds.back();
  EXPECT_EQ(rules.bytes[24], 0) << "no mask of ipProto is left";
}

TEST_P(UpdateFlows, AModificationReleasesTheOldEntryAfterAGracePeriod) {
  update(message().add(flowOf(1, 1)));
  const void* entry = Calls::allocations("openflowentry")[0].result;
  const void* node = Calls::allocations("RTE_KoRcuHt")[0].result;
  Reader reader;
  update(message().add(flowOf(1, 2)));
  letWrongReleasesShow();
  EXPECT_EQ(Calls::countFrees(entry), 0);
  EXPECT_EQ(Calls::countFrees(node), 0);
  reader.leave();
  (void)heapUse();
  EXPECT_EQ(Calls::countFrees(entry), 1);
  EXPECT_EQ(Calls::countFrees(node), 1);
}

TEST_P(UpdateFlows, ADeleteReleasesTheEntryAfterAGracePeriod) {
  update(message().add(flowOf(1, 1)));
  const void* entry = Calls::allocations("openflowentry")[0].result;
  Reader reader;
  update(message().erase(1));
  EXPECT_TRUE(stored().empty());
  letWrongReleasesShow();
  EXPECT_EQ(Calls::countFrees(entry), 0);
  reader.leave();
  (void)heapUse();
  EXPECT_EQ(Calls::countFrees(entry), 1);
}

TEST_P(UpdateFlows, AddsComeBeforeDeletes) {
  update(message().erase(1).add(flowOf(1, 1)).add(flowOf(2, 1)));
  EXPECT_THAT(stored(), ElementsAre(2));
  EXPECT_EQ(numFlows(), 1u);
  EXPECT_THAT(published(mine()), ElementsAre(std::pair(2, 1)));
  update(message().add(flowOf(2, 2)).erase(2));
  EXPECT_TRUE(stored().empty());
  EXPECT_EQ(mine().data, nullptr);
}

TEST_P(UpdateFlows, OfTwoAddsOfOneFlowTheSecondStays) {
  const TraceMark mark;
  update(message().add(flowOf(4, 1)).add(flowOf(4, 2)));
  EXPECT_EQ(numFlows(), 1u);
  EXPECT_THAT(published(mine()), ElementsAre(std::pair(4, 2)));
  EXPECT_TRUE(mark.contains("addFlow Flow modification for flowId: 4"));
  EXPECT_EQ(mine().data->numUserdata, 1u);
}

TEST_P(UpdateFlows, AnUnknownDeleteIsTracedOnly) {
  update(message().add(flowOf(1, 1)).add(flowOf(2, 1)));
  const TraceMark mark;
  update(message().erase(9).erase(2).erase(2));
  EXPECT_EQ(numFlows(), 1u);
  EXPECT_THAT(stored(), ElementsAre(1));
  EXPECT_TRUE(mark.contains("deleteFlow Flow not found for flowId: 9"));
  EXPECT_TRUE(mark.contains("deleteFlow Flow not found for flowId: 2"));
  EXPECT_EQ(table(3).counters[0], 0u);
}

TEST_P(UpdateFlows, TheOtherFamilyIsLeftAlone) {
  update(Update(3, 1 - GetParam()).add(flowOf(1, 7)));
  const QuilModules::AclCtxData* before = others().data;
  update(message().add(flowOf(1, 1)).add(flowOf(2, 1)));
  update(message().erase(1).erase(2));
  EXPECT_EQ(others().data, before);
  EXPECT_EQ(others().generation, 1u);
  EXPECT_THAT(storedFlows(table(3), 1 - GetParam()), ElementsAre(1));
  EXPECT_THAT(published(others()), ElementsAre(std::pair(1, 7)));
}

TEST_P(UpdateFlows, OtherTablesAreLeftAlone) {
  bind(4);
  update(Update(4, GetParam()).add(flowOf(1, 7)));
  const QuilModules::AclCtxData* before = slotOf(4, GetParam()).data;
  update(message().add(flowOf(1, 1)));
  EXPECT_EQ(slotOf(4, GetParam()).data, before);
  EXPECT_THAT(published(mine()), ElementsAre(std::pair(1, 1)));
}

TEST_P(UpdateFlows, AllocatesEntriesOneByOne) {
  update(message().add(flowOf(1, 1)).add(flowOf(1, 2)).add(flowOf(2, 1)));
  const auto entries = Calls::allocations("openflowentry");
  ASSERT_EQ(entries.size(), 3u);
  for (const Calls::Allocation& entry : entries) {
    EXPECT_EQ(entry.size, entrySize());
    EXPECT_EQ(entry.align, 64u);
    EXPECT_TRUE(entry.zeroed);
  }
  // The i-th entry belongs to the i-th add.
  const void* stored =
      ipv6() ? static_cast<void*>(table(3).ipv6.flows->lookup(2)->value)
             : table(3).ipv4.flows->lookup(2)->value;
  EXPECT_EQ(stored, entries[2].result);
}

TEST_P(UpdateFlows, SizesItsArraysForTheWorstCase) {
  update(message().add(flowOf(1, 1)).add(flowOf(2, 1)));
  const TraceMark mark;
  // Two flows before and three adds, though two flows are left.
  update(
      message().add(flowOf(1, 2)).add(flowOf(2, 2)).add(flowOf(3, 2)).erase(2));
  const auto rules = Calls::allocations("openflowallrules");
  ASSERT_EQ(rules.size(), 2u);
  EXPECT_EQ(rules[0].size, 2 * ruleSize());
  EXPECT_EQ(rules[1].size, 5 * ruleSize());
  for (const Calls::Allocation& array : rules) {
    EXPECT_EQ(array.align, 64u);
    EXPECT_FALSE(array.zeroed);
    EXPECT_EQ(Calls::countFrees(array.result), 1) << "when the build is done";
  }
  const auto userdata = Calls::liveArrays(userdataSize(6));
  ASSERT_EQ(userdata.size(), 1u);
  EXPECT_EQ(userdata[0], mine().data->userdata);
  EXPECT_TRUE(mark.contains("processUpdateFlows tableId: 3 flowType: " +
                            type() + ", numAdds: 3, numDeletes: 1"));
}

TEST_P(UpdateFlows, InstallsReleaseHookAndNoKeyHook) {
  update(message().add(flowOf(6, 1)));
  if (ipv6()) {
    const auto* node = table(3).ipv6.flows->lookup(6);
    EXPECT_EQ(node->keyRelease, nullptr);
    EXPECT_EQ(node->valueRelease,
              &OpenFlow::freeFlowEntry<of_flow_acl_rule_ipv6>);
  } else {
    const auto* node = table(3).ipv4.flows->lookup(6);
    EXPECT_EQ(node->keyRelease, nullptr);
    EXPECT_EQ(node->valueRelease, &OpenFlow::freeFlowEntry<of_flow_acl_rule>);
  }
}

TEST_P(UpdateFlows, StoredRulesHaveNoUserdata) {
  update(message().add(flowOf(6, 1)).add(flowOf(7, 1)));
  for (const uint32_t id : {6, 7}) {
    const uint32_t userdata =
        ipv6() ? table(3).ipv6.flows->lookup(id)->value->rule.data.userdata
               : table(3).ipv4.flows->lookup(id)->value->rule.data.userdata;
    EXPECT_EQ(userdata, 0u);
  }
}

// Whatever the adds and deletes, an update gives back all but what the flows
// and the classifier need.
TEST_P(UpdateFlows, LeavesNothingBehindButTheLastBlock) {
  update(message());
  const HeapUse before = heapUse();
  update(message().add(flowOf(1, 1)).add(flowOf(2, 1)).erase(1));
  update(message().add(flowOf(2, 2)).erase(5));
  update(message().erase(2));
  EXPECT_EQ(heapUse().blocks, before.blocks + 2);
  EXPECT_TRUE(Calls::liveArrays(userdataSize(3)).empty());
  EXPECT_TRUE(Calls::liveArrays(userdataSize(2)).empty());
}

class UpdateFlowsOfType : public ControlTest {};

TEST_F(UpdateFlowsOfType, OtherThan1IsIpv4) {
  for (const int flowType : {2, 7, -1}) {
    bind(3);
    const TraceMark mark;
    update(Update(3, flowType).add(flowOf(1, 1).ipv4Src(1)));
    EXPECT_EQ(table(3).ipv4.numFlows, 1u);
    EXPECT_EQ(table(3).ipv6.numFlows, 0u);
    EXPECT_EQ(Calls::state().aclAdds.back().bytes.size(), 352u);
    EXPECT_TRUE(mark.contains("updateFlows tableId: 3 flowType: " +
                              std::to_string(flowType)));
    EXPECT_TRUE(mark.contains("programAcl tableId: 3, flowType: 0"));
    update(Update(3, flowType).erase(1));
    EXPECT_EQ(table(3).ipv4.numFlows, 0u);
  }
}

TEST_F(UpdateFlowsOfType, EveryTableTakesUpdates) {
  for (uint32_t t = 0; t < kNumTables; t++) {
    bind(t);
    update(Update(t).add(flowOf(1, t)));
    EXPECT_EQ(Calls::state().aclCreates.back().name,
              "table" + std::to_string(t) + "-1");
  }
  for (uint32_t t = 0; t < kNumTables; t++) {
    EXPECT_THAT(published(slotOf(t, kIpv4)), ElementsAre(std::pair(1u, t)));
  }
}

TEST_F(UpdateFlowsOfType, ManyFlowsInOneMessage) {
  bind(1);
  Update message(1);
  for (uint32_t i = 0; i < 50; i++) {
    message.add(flowOf(i * 1000003, i).l4DstPort(i));
  }
  update(message);
  EXPECT_EQ(table(1).ipv4.numFlows, 50u);
  EXPECT_EQ(published(slotOf(1, kIpv4)).size(), 50u);
  for (uint32_t i = 0; i < 50; i++) {
    OfIpv4Key key{};
    key.l4.l4DstPort = __builtin_bswap16(static_cast<uint16_t>(i));
    const OfFlowAction* action = classify(slotOf(1, kIpv4), &key);
    ASSERT_NE(action, nullptr);
    EXPECT_EQ(action->byteCounterId, i);
  }
}

TEST(OpenFlowEntry, IsTheRuleThenTheAction) {
  EXPECT_EQ(offsetof(OpenFlowEntry<of_flow_acl_rule>, rule), 0u);
  EXPECT_EQ(offsetof(OpenFlowEntry<of_flow_acl_rule>, action), 384u);
  EXPECT_EQ(offsetof(OpenFlowEntry<of_flow_acl_rule_ipv6>, action), 448u);
  EXPECT_EQ(alignof(OpenFlowEntry<of_flow_acl_rule>), 64u);
}

}  // namespace
}  // namespace openflow_test
