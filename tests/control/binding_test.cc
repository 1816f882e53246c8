// SPDX-License-Identifier: BSD-3-Clause
//
// The commands "setAclIds" and "getStats".
#include <cstring>
#include <numeric>

#include "tests/control/control_test.h"

namespace openflow_test {
namespace {

using testing::ElementsAre;

class SetAclIds : public ControlTest {};

TEST_F(SetAclIds, BindsOneTable) {
  struct Row {
    uint32_t tableId, aclId, ipv6AclId;
  };
  for (const Row& row :
       {Row{0, 0, 1}, {31, 65535, 0}, {7, 12, 12}, {7, 13, 14}}) {
    const TraceMark mark;
    EXPECT_THAT(bind(row.tableId, row.aclId, row.ipv6AclId), Succeeds());
    EXPECT_THAT(
        traced(mark),
        ElementsAre("2 setAclIds tableId: " + std::to_string(row.tableId) +
                    ", aclId: " + std::to_string(row.aclId) +
                    ", ipv6AclId: " + std::to_string(row.ipv6AclId)));
    EXPECT_EQ(table(row.tableId).ipv4.aclCtx, &slot(0) + row.aclId);
    EXPECT_EQ(table(row.tableId).ipv6.aclCtx, &slot(0) + row.ipv6AclId);
    EXPECT_EQ(reinterpret_cast<char*>(table(row.tableId).ipv4.aclCtx) -
                  reinterpret_cast<char*>(&slot(0)),
              64 * ptrdiff_t{row.aclId})
        << "slots are 64 bytes apart";
  }
  for (unsigned t = 0; t < kNumTables; t++) {
    if (t != 0 && t != 7 && t != 31) {
      EXPECT_EQ(table(t).ipv4.aclCtx, nullptr) << t;
      EXPECT_EQ(table(t).ipv6.aclCtx, nullptr) << t;
    }
  }
}

TEST_F(SetAclIds, TakesTheSlotsOfTarget6) {
  bind(0, 0, 0);
  EXPECT_EQ(table(0).ipv4.aclCtx,
            OpenFlowPeer::aclDb(module())->getAclCtxTableByTarget(6)->slots);
}

TEST_F(SetAclIds, DropsTheOldBindingOnly) {
  bind(1, 2, 3);
  update(Update(1).add(Flow(1, 10)));
  update(Update(1, kIpv6).add(Flow(1, 10)));
  const QuilModules::AclCtx before2 = slot(2);
  const QuilModules::AclCtx before3 = slot(3);
  Calls::state().frees.clear();
  bind(1, 4, 5);
  EXPECT_EQ(table(1).ipv4.aclCtx, &slot(4));
  EXPECT_EQ(table(1).ipv6.aclCtx, &slot(5));
  EXPECT_EQ(slot(4).data, nullptr) << "classifiers do not move";
  EXPECT_EQ(slot(5).data, nullptr);
  EXPECT_EQ(memcmp(&slot(2), &before2, sizeof(before2)), 0);
  EXPECT_EQ(memcmp(&slot(3), &before3, sizeof(before3)), 0);
  (void)heapUse();
  EXPECT_TRUE(Calls::state().frees.empty());
  EXPECT_TRUE(Calls::state().aclFrees.empty());
  bind(1, 2, 3);  // so that the end of the module frees what they publish
}

TEST_F(SetAclIds, KeepsWhatTheNewSlotsPublish) {
  bind(1, 2, 3);
  update(Update(1).add(Flow(1, 10)));
  const QuilModules::AclCtxData* published = slot(2).data;
  bind(4, 2, 3);
  EXPECT_EQ(slot(2).data, published);
  EXPECT_EQ(slot(2).generation, 1u);
  update(Update(4).add(Flow(8, 80)));
  EXPECT_NE(slot(2).data, published);
  EXPECT_EQ(publishedActions(slot(2))[0]->priority, 80u);
}

// Only a mark for the very classifier that a slot publishes says that it is
// freed.
TEST_F(SetAclIds, KeepsWhatIsPublishedDespiteAnotherMark) {
  bind(1, 2, 3);
  update(Update(1).add(Flow(1, 10)));
  const QuilModules::AclCtxData* published = slot(2).data;
  slot(2).freedCtx = reinterpret_cast<rte_acl_ctx*>(&slot(2));
  slot(3).freedCtx = slot(2).freedCtx;
  bind(4, 2, 3);
  EXPECT_EQ(slot(2).data, published);
  EXPECT_EQ(slot(3).data, nullptr);
  slot(2).freedCtx = slot(3).freedCtx = nullptr;
}

TEST_F(SetAclIds, DoesNotCheckSlotNumbers) {
  EXPECT_THAT(bind(3, 65536, 0xffffffff), Succeeds());
  EXPECT_EQ(table(3).ipv4.aclCtx, &slot(0) + 65536);
  EXPECT_EQ(table(3).ipv6.aclCtx, &slot(0) + 0xffffffff);
  bind(3, 0, 1);
}

using SetAclIdsDeathTest = SetAclIds;

TEST_F(SetAclIdsDeathTest, TheArgumentsAreTracedBeforeTheCheck) {
  EXPECT_DEATH(
      {
        Mio::setTraceLevels("OpenFlow", 1 << 2);
        bind(32, 5, 6);
      },
      "setAclIds tableId: 32, aclId: 5, ipv6AclId: 6\n.*Check failed");
}

TEST_F(SetAclIdsDeathTest, ATableFrom32UpIsFatal) {
  EXPECT_DEATH(bind(32, 0, 0), "Check failed: tableId < 32");
  EXPECT_DEATH(bind(0xffffffff, 0, 0),
               "tableId < 32.*/src/QuilModules/OpenFlow.*CommandResponse "
               "OpenFlow::setAclIds\\(const quil::pb::OpenFlowAclArg&\\)");
}

class GetStats : public ControlTest {
 protected:
  CommandResponse getStats(uint32_t tableId) {
    quil::pb::OpenFlowGetStatsArg arg;
    arg.set_tableid(tableId);
    return module().getStats(arg);
  }

  // The values of a reply's fields, in the message's order.
  std::vector<uint64_t> values(uint32_t tableId) {
    const CommandResponse response = getStats(tableId);
    EXPECT_FALSE(response.has_error());
    quil::pb::OpenFlowGetStatsRespArg stats;
    EXPECT_TRUE(response.data().UnpackTo(&stats));
    std::vector<uint64_t> values;
    const auto* type = stats.GetDescriptor();
    for (int i = 0; i < type->field_count(); i++) {
      values.push_back(stats.GetReflection()->GetUInt64(stats, type->field(i)));
    }
    return values;
  }
};

TEST_F(GetStats, AnswersZerosForAFreshTable) {
  for (uint32_t t = 0; t < kNumTables; t++) {
    EXPECT_EQ(values(t), std::vector<uint64_t>(16, 0));
  }
}

TEST_F(GetStats, ReportsCountsAndCountersInOrder) {
  for (const unsigned t : {0u, 9u, 31u}) {
    OpenFlowTable& record = table(t);
    record.ipv4.numFlows = 0xffffffff;
    record.ipv6.numFlows = 1000 + t;
    std::iota(std::begin(record.counters), std::end(record.counters),
              uint64_t{0x100000000} + 100 * t);
    std::vector<uint64_t> expected = {0xffffffff, 1000 + t, record.counters[0],
                                      0, 0};
    for (int i = 1; i < 12; i++) {
      expected.push_back(uint64_t{0x100000000} + 100 * t + i);
    }
    const OpenFlowTable before = record;
    const TraceMark mark;
    EXPECT_EQ(values(t), expected);
    EXPECT_THAT(traced(mark),
                ElementsAre("2 CommandResponse OpenFlow::getStats(const "
                            "quil::pb::OpenFlowGetStatsArg&): "));
    EXPECT_EQ(memcmp(&record, &before, sizeof(before)), 0);
  }
}

TEST_F(GetStats, ReservedFieldsAndNamesAreTheSchemas) {
  const auto* type = quil::pb::OpenFlowGetStatsRespArg::descriptor();
  std::vector<std::string> names;
  for (int i = 0; i < type->field_count(); i++) {
    names.push_back(type->field(i)->name());
  }
  EXPECT_THAT(names, ElementsAre("numFlows", "numIpv6Flows", "updateFailures",
                                 "reserved1", "reserved2", "aclCreateFailures",
                                 "aclAddRulesFailures", "aclBuildFailures",
                                 "classifyErrors", "noAclCtx", "noClassifier",
                                 "batchDrops", "tableMisses", "spareCounter",
                                 "dropActions", "noOutputDrops"));
}

TEST_F(GetStats, CountsFlowsOfBothFamilies) {
  bind(2);
  update(Update(2).add(Flow(1, 1)).add(Flow(2, 1)).add(Flow(3, 1)));
  update(Update(2, kIpv6).add(Flow(1, 1)));
  EXPECT_EQ(values(2)[0], 3u);
  EXPECT_EQ(values(2)[1], 1u);
  EXPECT_EQ(values(3), std::vector<uint64_t>(16, 0));
}

TEST_F(GetStats, RefusesATableFrom32Up) {
  for (const uint32_t tableId : {32u, 255u, 256u, 0xffffffffu}) {
    const TraceMark mark;
    EXPECT_THAT(getStats(tableId), FailsWith(-1, "Invalid table id"));
    EXPECT_EQ(traced(mark).size(), 1u);
  }
}

}  // namespace
}  // namespace openflow_test
