// SPDX-License-Identifier: BSD-3-Clause
//
// The records of a flow table: their members, in order, by type and name.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "modules/openflow/flow_table.h"

namespace {

template <typename FLOW_TYPE>
void expectInfo(size_t ruleSize) {
  using Info = OpenFlowInfo<FLOW_TYPE>;
  using Store = KoRcuHt<
      uint32_t, OpenFlowEntry<FLOW_TYPE>*,
      Dpdk::RteAllocator<KoRcuHtNode<uint32_t, OpenFlowEntry<FLOW_TYPE>*>>>;
  static_assert(
      std::is_same_v<decltype(Info::flowType), quil::pb::OpenFlowType>);
  static_assert(sizeof(Info::flowType) == 4);
  static_assert(std::is_same_v<decltype(Info::flows), Store*>);
  static_assert(std::is_same_v<decltype(Info::numFlows), uint32_t>);
  static_assert(std::is_same_v<decltype(Info::tableId), uint8_t>);
  static_assert(std::is_same_v<decltype(Info::aclCtx), QuilModules::AclCtx*>);
  static_assert(std::is_same_v<decltype(Info::ruleSize), uint64_t>);
  EXPECT_EQ(offsetof(Info, flowType), 0u);
  EXPECT_EQ(offsetof(Info, flows), 8u);
  EXPECT_EQ(offsetof(Info, numFlows), 16u);
  EXPECT_EQ(offsetof(Info, tableId), 20u);
  EXPECT_EQ(offsetof(Info, aclCtx), 24u);
  EXPECT_EQ(offsetof(Info, ruleSize), 32u);
  EXPECT_EQ(sizeof(FLOW_TYPE), ruleSize);
}

TEST(Records, AFamilysInfo) {
  expectInfo<of_flow_acl_rule>(352);
  expectInfo<of_flow_acl_rule_ipv6>(432);
}

TEST(Records, ATableIsItsFamiliesThenItsCounters) {
  EXPECT_EQ(offsetof(OpenFlowTable, ipv4), 0u);
  EXPECT_LT(offsetof(OpenFlowTable, ipv4), offsetof(OpenFlowTable, ipv6));
  EXPECT_LT(offsetof(OpenFlowTable, ipv6), offsetof(OpenFlowTable, counters));
  static_assert(
      std::is_same_v<decltype(OpenFlowTable::counters), uint64_t[12]>);
}

TEST(Records, CountersByIndex) {
  const OpenFlowCounter inOrder[] = {
      kUpdateFailures,   kAclCreateFailures, kAclAddRulesFailures,
      kAclBuildFailures, kClassifyErrors,    kNoAclCtx,
      kNoClassifier,     kBatchDrops,        kTableMisses,
      kSpareCounter,     kDropActions,       kNoOutputDrops};
  for (size_t i = 0; i < std::size(inOrder); i++) {
    EXPECT_EQ(inOrder[i], i);
  }
  EXPECT_EQ(std::size(inOrder), 12u);
}

}  // namespace
