// SPDX-License-Identifier: BSD-3-Clause
#include <urcu-qsbr.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "tests/control/control_test.h"

namespace openflow_test {
namespace {

using testing::ElementsAre;

constexpr const char* kAclDb = "QuilModules::AclDb";

bool isZero(const void* object, size_t size) {
  const auto* bytes = static_cast<const uint8_t*>(object);
  return std::all_of(bytes, bytes + size, [](uint8_t byte) { return !byte; });
}

// The stores of all tables, in the order in which Init makes them.
std::vector<void*> stores(OpenFlow& module) {
  std::vector<void*> handles;
  for (unsigned t = 0; t < kNumTables; t++) {
    const OpenFlowTable& table = OpenFlowPeer::table(module, t);
    handles.push_back(table.ipv4.flows->handle());
    handles.push_back(table.ipv6.flows->handle());
  }
  return handles;
}

class NewModule : public testing::Test {
 protected:
  const Calls::Scope calls_;
};

TEST_F(NewModule, LivesInZeroedDpdkMemory) {
  auto* module = new OpenFlow;
  ASSERT_EQ(Calls::state().allocations.size(), 1u);
  const Calls::Allocation& memory = Calls::state().allocations[0];
  EXPECT_EQ(memory.type, "(null)");
  EXPECT_EQ(memory.size, sizeof(OpenFlow));
  EXPECT_EQ(memory.align, 64u);
  EXPECT_TRUE(memory.zeroed);
  EXPECT_EQ(memory.result, module);
  delete static_cast<Module*>(module);
  EXPECT_THAT(Calls::state().frees, ElementsAre(memory.result));
}

TEST_F(NewModule, IsAllZero) {
  const auto module = std::make_unique<OpenFlow>();
  const rte_acl_config zero = {};
  EXPECT_EQ(OpenFlowPeer::aclDb(*module), nullptr);
  EXPECT_EQ(memcmp(&OpenFlowPeer::aclConfig(*module), &zero, sizeof(zero)), 0);
  EXPECT_EQ(memcmp(&OpenFlowPeer::ipv6AclConfig(*module), &zero, sizeof(zero)),
            0);
  for (unsigned t = 0; t < kNumTables; t++) {
    const OpenFlowTable& table = OpenFlowPeer::table(*module, t);
    EXPECT_TRUE(isZero(&table, sizeof(table))) << t;
  }
  EXPECT_EQ(module->max_allowed_workers(), 16);
  EXPECT_EQ(module->min_allowed_workers(), 1);
}

TEST_F(NewModule, InheritsWhatItDoesNotOverride) {
  const auto module = std::make_unique<OpenFlow>();
  EXPECT_EQ(module->OnEvent(bess::Event::PreResume), -ENOTSUP);
  EXPECT_EQ(module->GetDesc(), "");
}

TEST_F(NewModule, DeInitFreesNothing) {
  const auto module = std::make_unique<OpenFlow>();
  const TraceMark mark;
  module->DeInit();
  EXPECT_THAT(traced(mark), ElementsAre("2 virtual void OpenFlow::DeInit(): "));
  EXPECT_TRUE(Calls::state().frees.empty());
  EXPECT_TRUE(Calls::state().order.empty());
}

TEST_F(NewModule, ItsTablesLieInARow) {
  const auto module = std::make_unique<OpenFlow>();
  const OpenFlowTable* first = &OpenFlowPeer::table(*module, 0);
  EXPECT_EQ(&OpenFlowPeer::table(*module, 31), first + 31);
  const auto* object = reinterpret_cast<const char*>(module.get());
  EXPECT_GE(reinterpret_cast<const char*>(first), object);
  EXPECT_LE(reinterpret_cast<const char*>(first + 32),
            object + sizeof(OpenFlow));
}

class Lifecycle : public ControlTest {};

TEST_F(Lifecycle, InitPreparesEveryTable) {
  for (unsigned t = 0; t < kNumTables; t++) {
    const OpenFlowTable& record = table(t);
    EXPECT_EQ(record.ipv4.tableId, t);
    EXPECT_EQ(record.ipv6.tableId, t);
    EXPECT_EQ(record.ipv4.flowType, 0);
    EXPECT_EQ(record.ipv6.flowType, 1);
    EXPECT_EQ(record.ipv4.ruleSize, 352u);
    EXPECT_EQ(record.ipv6.ruleSize, 432u);
    EXPECT_EQ(record.ipv4.numFlows, 0u);
    EXPECT_EQ(record.ipv6.numFlows, 0u);
    EXPECT_EQ(record.ipv4.aclCtx, nullptr);
    EXPECT_EQ(record.ipv6.aclCtx, nullptr);
    EXPECT_TRUE(isZero(record.counters, sizeof(record.counters)));
    EXPECT_TRUE(storedFlows(record, kIpv4).empty());
    EXPECT_TRUE(storedFlows(record, kIpv6).empty());
  }
}

TEST_F(Lifecycle, InitMakes64StoresOf1024Buckets) {
  EXPECT_EQ(Calls::state().tablesMade, stores(module()));
  EXPECT_EQ(Calls::state().tableSizes, std::vector<unsigned long>(64, 1024));
  for (unsigned t = 0; t < kNumTables; t++) {
    for (const uint32_t size :
         {table(t).ipv4.flows->size(), table(t).ipv6.flows->size()}) {
      EXPECT_EQ(size, 1024u);
    }
    EXPECT_TRUE(table(t).ipv4.flows->deferFree());
    EXPECT_TRUE(table(t).ipv6.flows->deferFree());
    EXPECT_EQ(table(t).ipv4.flows->allocator().name(), "RTE_KoRcuHt");
    EXPECT_EQ(table(t).ipv6.flows->allocator().name(), "RTE_KoRcuHt");
  }
}

template <size_t N>
void expectConfig(const rte_acl_config& config,
                  const rte_acl_field_def (&defs)[N]) {
  EXPECT_EQ(config.num_categories, 1u);
  EXPECT_EQ(config.num_fields, N);
  EXPECT_EQ(config.max_size, 0u);
  EXPECT_EQ(memcmp(config.defs, defs, sizeof(defs)), 0);
  EXPECT_TRUE(isZero(config.defs + N,
                     sizeof(config.defs) - N * sizeof(config.defs[0])));
}

TEST_F(Lifecycle, InitFillsTheClassifierConfigurations) {
  expectConfig(OpenFlowPeer::aclConfig(module()), of_flow_defs);
  expectConfig(OpenFlowPeer::ipv6AclConfig(module()), of_flow_defs_ipv6);
}

TEST_F(Lifecycle, TheDatabaseIsMadeOnceAndSharedAndReleased) {
  const Mio::Ptr<Mio::Entity> db = Mio::Entity::singletonExists(kAclDb);
  ASSERT_TRUE(db);
  EXPECT_EQ(OpenFlowPeer::aclDb(module()), db);

  auto other = std::make_unique<OpenFlow>();
  EXPECT_THAT(other->Init({}), Succeeds());
  EXPECT_EQ(OpenFlowPeer::aclDb(*other), db) << "an existing one is reused";
  other->DeInit();
  EXPECT_EQ(OpenFlowPeer::aclDb(*other), db) << "DeInit keeps the reference";
}

TEST_F(Lifecycle, TheDatabaseGoesWithItsLastModule) {
  auto other = std::make_unique<OpenFlow>();
  EXPECT_THAT(other->Init({}), Succeeds());
  tearDown();
  EXPECT_TRUE(Mio::Entity::singletonExists(kAclDb));
  other->DeInit();
  EXPECT_TRUE(Mio::Entity::singletonExists(kAclDb));
  other.reset();
  EXPECT_FALSE(Mio::Entity::singletonExists(kAclDb));
}

TEST_F(Lifecycle, ASecondInitLeavesTheFirstStoresAllocated) {
  std::vector<std::pair<OpenFlowStore<of_flow_acl_rule>*,
                        OpenFlowStore<of_flow_acl_rule_ipv6>*>>
      first;
  for (unsigned t = 0; t < kNumTables; t++) {
    first.emplace_back(table(t).ipv4.flows, table(t).ipv6.flows);
  }
  EXPECT_THAT(module().Init({}), Succeeds());
  EXPECT_EQ(Calls::state().tablesMade.size(), 128u);
  EXPECT_TRUE(Calls::state().tablesDestroyed.empty());
  for (unsigned t = 0; t < kNumTables; t++) {
    EXPECT_NE(table(t).ipv4.flows, first[t].first);
    EXPECT_NE(table(t).ipv6.flows, first[t].second);
    delete first[t].first;
    delete first[t].second;
  }
}

TEST_F(Lifecycle, ASecondInitReleasesTheFirstReference) {
  module().DeInit();
  EXPECT_THAT(module().Init({}), Succeeds());
  tearDown();
  EXPECT_FALSE(Mio::Entity::singletonExists(kAclDb));
}

TEST_F(Lifecycle, DestructionDoesNotDeInit) {
  std::vector<std::pair<OpenFlowStore<of_flow_acl_rule>*,
                        OpenFlowStore<of_flow_acl_rule_ipv6>*>>
      kept;
  for (unsigned t = 0; t < kNumTables; t++) {
    kept.emplace_back(table(t).ipv4.flows, table(t).ipv6.flows);
  }
  const TraceMark mark;
  module_.reset();
  EXPECT_TRUE(traced(mark).empty());
  EXPECT_TRUE(Calls::state().tablesDestroyed.empty());
  for (const auto& [ipv4, ipv6] : kept) {
    delete ipv4;
    delete ipv6;
  }
}

TEST_F(Lifecycle, DeInitFreesStoreAndClassifierFamilyByFamily) {
  std::vector<const void*> expected;
  for (unsigned t = 0; t < kNumTables; t++) {
    bind(t);
    const bool published = t == 0 || t == 7 || t == 31;
    if (published) {
      update(Update(t, kIpv4).add(Flow(1, 10)));
      update(Update(t, kIpv6).add(Flow(2, 20)));
    }
    expected.push_back(table(t).ipv4.flows->handle());
    if (published) expected.push_back(slotOf(t, kIpv4).data->ctx);
    expected.push_back(table(t).ipv6.flows->handle());
    if (published) expected.push_back(slotOf(t, kIpv6).data->ctx);
  }
  const TraceMark mark;
  module().DeInit();
  EXPECT_THAT(traced(mark), ElementsAre("2 virtual void OpenFlow::DeInit(): "));
  EXPECT_EQ(Calls::state().order, expected);
  module_.reset();
}

TEST_F(Lifecycle, DeInitReleasesEveryFlow) {
  for (const int flowType : {kIpv4, kIpv6}) {
    bind(4);
    update(Update(4, flowType).add(Flow(1, 1)).add(Flow(2, 2)).add(Flow(3, 3)));
  }
  std::vector<Calls::Allocation> owned = Calls::allocations("openflowentry");
  for (const Calls::Allocation& node : Calls::allocations("RTE_KoRcuHt")) {
    owned.push_back(node);
  }
  ASSERT_EQ(owned.size(), 12u);
  module().DeInit();
  for (const Calls::Allocation& block : owned) {
    EXPECT_EQ(Calls::countFrees(block.result), 1) << block.type;
  }
  module_.reset();
}

TEST_F(Lifecycle, DeInitLeavesPointersAndPublishedRecords) {
  bind(3);
  update(Update(3).add(Flow(1, 10).counters(71, 0)));
  update(Update(3, kIpv6).add(Flow(1, 10).counters(72, 0)));
  const OpenFlowTable before = table(3);
  QuilModules::AclCtx& slot4 = slotOf(3, kIpv4);
  QuilModules::AclCtx& slot6 = slotOf(3, kIpv6);
  const QuilModules::AclCtxData* data4 = slot4.data;
  const QuilModules::AclCtxData* data6 = slot6.data;
  const QuilModules::AclCtxData record4 = *data4;
  module().DeInit();
  EXPECT_EQ(memcmp(&table(3), &before, sizeof(before)), 0);
  EXPECT_EQ(slot4.data, data4);
  EXPECT_EQ(slot6.data, data6);
  EXPECT_EQ(data4->ctx, record4.ctx) << "though it is freed";
  EXPECT_EQ(data4->userdata, record4.userdata);
  EXPECT_EQ(data4->numUserdata, 1u);
  EXPECT_EQ(slot4.generation, 1u);
  ASSERT_EQ(publishedActions(slot4).size(), 1u);
  EXPECT_EQ(publishedActions(slot4)[0]->packetCounterId, 71u);
  EXPECT_EQ(publishedActions(slot6)[0]->packetCounterId, 72u);
  EXPECT_EQ(Calls::liveArrays(2 * sizeof(QuilModules::KoAclUserdata)).size(),
            2u);
  module_.reset();
}

TEST_F(Lifecycle, DeInitPassesOverEmptySlots) {
  bind(0);
  update(Update(0));
  QuilModules::AclCtxData withoutClassifier{};
  slotOf(0, kIpv6).data = &withoutClassifier;
  module().DeInit();
  EXPECT_TRUE(Calls::state().aclFrees.empty());
  slotOf(0, kIpv6).data = nullptr;
  module_.reset();
}

TEST_F(Lifecycle, DeInitFreesASharedClassifierOnce) {
  bind(1, 9, 8);
  bind(2, 9, 8);
  update(Update(1).add(Flow(1, 10)));
  const rte_acl_ctx* ctx = slot(9).data->ctx;
  module().DeInit();
  EXPECT_THAT(Calls::state().aclFrees, ElementsAre(ctx));
  module_.reset();
}

TEST_F(Lifecycle, NothingStaysAllocatedButTheLastFlowsBlocks) {
  tearDown();
  const HeapUse before = heapUse();
  module_ = std::make_unique<OpenFlow>();
  module().Init({});
  bind(6);
  update(Update(6).add(Flow(1, 10)).add(Flow(2, 20)));  // one block
  update(Update(6).add(Flow(2, 30)).erase(1));          // and one
  update(Update(6).erase(2));
  update(Update(6, kIpv6).add(Flow(5, 50)));  // and one
  tearDown();
  // The record that DeInit left goes when the next database is made.
  Mio::Entity::singletonIs(QuilModules::AclDb::entityType(), kAclDb);
  const HeapUse after = heapUse();
  EXPECT_EQ(after.blocks, before.blocks + 3);
}

// A module's slots after its end: the next module finds them emptied, or gets
// new ones.

TEST_F(Lifecycle, TheNextModuleFindsALeftSlotAsItIsUntilItBindsIt) {
  const Mio::Ptr<Mio::Entity> db = Mio::Entity::singletonExists(kAclDb);
  bind(0);
  update(Update(0).add(Flow(1, 10)));
  update(Update(0).add(Flow(1, 10)));
  const rte_acl_ctx* ctx = slotOf(0, kIpv4).data->ctx;
  rcu_barrier();
  Calls::state().aclFrees.clear();
  tearDown();
  EXPECT_THAT(Calls::state().aclFrees, ElementsAre(ctx));

  module_ = std::make_unique<OpenFlow>();
  module().Init({});
  QuilModules::AclCtx& left = slotOf(0, kIpv4);
  EXPECT_NE(left.data, nullptr);
  bind(0);
  EXPECT_EQ(left.data, nullptr) << "no worker may classify with it";
  EXPECT_EQ(left.generation, 2u);

  update(Update(0).add(Flow(1, 30)));
  EXPECT_EQ(Calls::state().aclCreates.back().name, "table0-3");
  ASSERT_EQ(publishedActions(left).size(), 1u);
  EXPECT_EQ(publishedActions(left)[0]->priority, 30u);
  rcu_barrier();
  EXPECT_EQ(std::ranges::count(Calls::state().aclFrees, ctx), 1)
      << "freed by DeInit, and not again";
}

// Of either family, from the first to the last.
TEST_F(Lifecycle, ABindingEmptiesBothSlotsThatAGoneModuleLeft) {
  const Mio::Ptr<Mio::Entity> db = Mio::Entity::singletonExists(kAclDb);
  struct Slots {
    uint32_t ipv4, ipv6;
  };
  for (const Slots& slots : {Slots{65535, 65534}, {0, 65535}, {1, 0}}) {
    bind(0, slots.ipv4, slots.ipv6);
    update(Update(0).add(Flow(1, 10)));
    update(Update(0, kIpv6).add(Flow(1, 10)));
    tearDown();
    module_ = std::make_unique<OpenFlow>();
    module().Init({});
    EXPECT_NE(slot(slots.ipv4).data, nullptr);
    EXPECT_NE(slot(slots.ipv6).data, nullptr);
    bind(31, slots.ipv4, slots.ipv6);
    EXPECT_EQ(slot(slots.ipv4).data, nullptr) << slots.ipv4;
    EXPECT_EQ(slot(slots.ipv6).data, nullptr) << slots.ipv6;
  }
}

TEST_F(Lifecycle, ANewDatabaseStartsWithEmptySlots) {
  bind(0);
  update(Update(0).add(Flow(1, 10)));
  tearDown();
  module_ = std::make_unique<OpenFlow>();
  module().Init({});
  bind(0);
  EXPECT_EQ(slotOf(0, kIpv4).data, nullptr);
  EXPECT_EQ(slotOf(0, kIpv4).generation, 0u);
  update(Update(0).add(Flow(1, 10)));
  EXPECT_EQ(Calls::state().aclCreates.back().name, "table0-1");
}

}  // namespace
}  // namespace openflow_test
