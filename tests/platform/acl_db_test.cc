// SPDX-License-Identifier: BSD-3-Clause
#include "platform/quil_modules/acl_db.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rte_malloc.h>

#include <string>
#include <thread>
#include <vector>

#include "tests/platform/rte_calls.h"
#include "tests/support/watched.h"

namespace {

using openflow_test::Watched;
using QuilModules::AclCtx;
using QuilModules::AclCtxData;
using QuilModules::AclCtxTable;
using QuilModules::AclDb;
using QuilModules::KoAclUserdata_;
using RteCalls::Call;
using RteCalls::Kind;
using testing::ElementsAre;
using testing::IsEmpty;

Mio::Ptr<AclDb> getOrMake() {
  const Mio::Entity::Type& type = AclDb::entityType();
  Mio::Ptr<Mio::Entity> db = Mio::Entity::singletonExists(type.name);
  if (!db) {
    db = Mio::Entity::singletonIs(type, type.name);
  }
  return Mio::ptrCast<AclDb>(db);
}

rte_acl_ctx* makeClassifier(const std::string& name) {
  const rte_acl_param parameters = {name.c_str(), -1, RTE_ACL_RULE_SZ(1), 1};
  return rte_acl_create(&parameters);
}

// A record with `blocks` userdata blocks in the entries 1 to `blocks`, as a
// build of that many rules leaves it.
AclCtxData* makeRecord(const std::string& name, uint32_t blocks) {
  auto* userdata = new KoAclUserdata_[blocks + 1]{};
  for (uint32_t i = 1; i <= blocks; i++) {
    userdata[i].action = rte_malloc("openflowuserdata", 64, 64);
  }
  return new AclCtxData{makeClassifier(name), userdata, blocks};
}

std::vector<void*> blocksOf(const AclCtxData& record) {
  std::vector<void*> blocks;
  for (uint32_t i = 0; i <= record.numUserdata; i++) {
    blocks.push_back(record.userdata[i].action);
  }
  return blocks;
}

// Each test starts without a database and with nothing left to clean up.
class AclDbTest : public testing::Test {
 protected:
  AclDbTest() {
    getOrMake();
    EXPECT_EQ(Mio::Entity::singletonExists("QuilModules::AclDb"), nullptr);
    RteCalls::log().clear();
  }
  ~AclDbTest() override { getOrMake(); }
};

TEST_F(AclDbTest, IsASingletonOfItsName) {
  EXPECT_EQ(AclDb::entityType().name, "QuilModules::AclDb");
  const Mio::Ptr<AclDb> db = getOrMake();
  EXPECT_EQ(getOrMake(), db);
  EXPECT_EQ(Mio::Entity::singletonExists("QuilModules::AclDb"), db);
}

TEST_F(AclDbTest, HandsOutEmptySlotsByTarget) {
  const Mio::Ptr<AclDb> db = getOrMake();
  AclCtxTable* table = db->getAclCtxTableByTarget(6);
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(table->numSlots, 65536u);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(table->slots) % 64, 0u);
  EXPECT_EQ(reinterpret_cast<char*>(&table->slots[1]) -
                reinterpret_cast<char*>(&table->slots[0]),
            64);
  for (uint64_t i = 0; i < table->numSlots; i++) {
    ASSERT_EQ(table->slots[i].data, nullptr);
    ASSERT_EQ(table->slots[i].generation, 0u);
    ASSERT_EQ(table->slots[i].freedCtx, nullptr);
  }
}

TEST_F(AclDbTest, TheSecondMemberOfATableIsItsSlots) {
  const Mio::Ptr<AclDb> db = getOrMake();
  const AclCtxTable* table = db->getAclCtxTableByTarget(6);
  EXPECT_EQ(reinterpret_cast<AclCtx* const*>(table)[1], table->slots);
}

TEST_F(AclDbTest, AnUnknownTargetHasNoTable) {
  const Mio::Ptr<AclDb> db = getOrMake();
  EXPECT_EQ(db->getAclCtxTableByTarget(8), nullptr);
  EXPECT_EQ(db->getAclCtxTableByTarget(0xffffffff), nullptr);
}

TEST_F(AclDbTest, EachTargetKeepsItsOwnTable) {
  const Mio::Ptr<AclDb> db = getOrMake();
  std::vector<AclCtxTable*> tables;
  for (unsigned target = 0; target < QuilModules::kNumTargets; target++) {
    tables.push_back(db->getAclCtxTableByTarget(target));
    ASSERT_NE(tables.back(), nullptr);
    tables.back()->slots[0].generation = target;
  }
  for (unsigned target = 0; target < QuilModules::kNumTargets; target++) {
    EXPECT_EQ(db->getAclCtxTableByTarget(target), tables[target]);
    EXPECT_EQ(tables[target]->slots[0].generation, target);
  }
}

TEST_F(AclDbTest, ThreadsGetOneTable) {
  const Mio::Ptr<AclDb> db = getOrMake();
  std::vector<AclCtxTable*> tables(4);
  std::vector<std::thread> threads;
  for (AclCtxTable*& table : tables) {
    threads.emplace_back([&] { table = db->getAclCtxTableByTarget(6); });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  for (AclCtxTable* table : tables) {
    EXPECT_EQ(table, tables[0]);
  }
}

TEST_F(AclDbTest, LivesAsLongAsSomeoneHoldsIt) {
  Mio::Ptr<AclDb> first = getOrMake();
  const Mio::Ptr<AclDb> second = getOrMake();
  AclCtxTable* table = first->getAclCtxTableByTarget(6);
  table->slots[7].generation = 3;
  first.reset();
  const Mio::Ptr<AclDb> third = getOrMake();
  EXPECT_EQ(third, second);
  EXPECT_EQ(third->getAclCtxTableByTarget(6), table);
  EXPECT_EQ(table->slots[7].generation, 3u);
}

TEST_F(AclDbTest, ANewDatabaseCleansUpAfterTheOld) {
  Mio::Ptr<AclDb> db = getOrMake();
  AclCtx& slot = db->getAclCtxTableByTarget(6)->slots[65535];
  slot.data = makeRecord("leftover", 3);
  slot.generation = 9;
  const rte_acl_ctx* ctx = slot.data->ctx;
  const std::vector<void*> blocks = blocksOf(*slot.data);
  const Watched record(slot.data);
  RteCalls::log().clear();

  db.reset();
  EXPECT_THAT(RteCalls::log(), IsEmpty());
  EXPECT_FALSE(record.deleted());
  EXPECT_EQ(slot.data->numUserdata, 3u) << "a late reader still reads it";

  db = getOrMake();
  EXPECT_TRUE(record.deleted());
  EXPECT_THAT(
      RteCalls::log(),
      ElementsAre(Call{Kind::kGracePeriod, nullptr}, Call{Kind::kAclFree, ctx},
                  Call{Kind::kFree, nullptr}, Call{Kind::kFree, blocks[1]},
                  Call{Kind::kFree, blocks[2]}));
  EXPECT_EQ(rte_acl_find_existing("leftover"), nullptr);
  const AclCtx& fresh = db->getAclCtxTableByTarget(6)->slots[65535];
  EXPECT_EQ(fresh.data, nullptr);
  EXPECT_EQ(fresh.generation, 0u);
  rte_free(blocks[3]);
}

TEST_F(AclDbTest, AClassifierThatItsModuleFreedIsNotFreedAgain) {
  Mio::Ptr<AclDb> db = getOrMake();
  AclCtx& slot = db->getAclCtxTableByTarget(6)->slots[0];
  slot.data = makeRecord("freed", 1);
  rte_acl_free(slot.data->ctx);
  slot.freedCtx = slot.data->ctx;
  void* last = slot.data->userdata[1].action;
  RteCalls::log().clear();
  db.reset();
  getOrMake();
  EXPECT_THAT(RteCalls::log(), ElementsAre(Call{Kind::kGracePeriod, nullptr},
                                           Call{Kind::kFree, nullptr}));
  rte_free(last);
}

TEST_F(AclDbTest, AMarkForAnEarlierClassifierDoesNotCount) {
  Mio::Ptr<AclDb> db = getOrMake();
  AclCtx& slot = db->getAclCtxTableByTarget(5)->slots[0];
  slot.data = makeRecord("newer", 0);
  const rte_acl_ctx* ctx = slot.data->ctx;
  slot.freedCtx = reinterpret_cast<const rte_acl_ctx*>(&slot);
  db.reset();
  getOrMake();
  EXPECT_THAT(RteCalls::log(), ElementsAre(Call{Kind::kGracePeriod, nullptr},
                                           Call{Kind::kAclFree, ctx}));
}

TEST_F(AclDbTest, SeveralLeftoversNeedOneGracePeriod) {
  Mio::Ptr<AclDb> db = getOrMake();
  db->getAclCtxTableByTarget(3)->slots[5].data = makeRecord("a", 0);
  db->getAclCtxTableByTarget(6)->slots[5].data = makeRecord("b", 0);
  db->getAclCtxTableByTarget(6)->slots[6].data = makeRecord("c", 0);
  db.reset();
  getOrMake();
  int waits = 0, classifiers = 0;
  for (const Call& call : RteCalls::log()) {
    waits += call.kind == Kind::kGracePeriod;
    classifiers += call.kind == Kind::kAclFree;
  }
  EXPECT_EQ(waits, 1);
  EXPECT_EQ(classifiers, 3);
}

// What hangs on the records of other targets is not the database's to free.
TEST_F(AclDbTest, ANewDatabaseCleansUpByTheRulesOfEachTarget) {
  Mio::Ptr<AclDb> db = getOrMake();
  AclCtxData* other = makeRecord("other", 2);
  AclCtxData* five = makeRecord("five", 3);
  const std::vector<void*> kept = blocksOf(*other);
  const std::vector<void*> freed = blocksOf(*five);
  const rte_acl_ctx* contexts[] = {other->ctx, five->ctx};
  db->getAclCtxTableByTarget(3)->slots[1].data = other;
  db->getAclCtxTableByTarget(5)->slots[1].data = five;
  db.reset();
  RteCalls::log().clear();
  getOrMake();
  EXPECT_THAT(RteCalls::log(), ElementsAre(Call{Kind::kGracePeriod, nullptr},
                                           Call{Kind::kAclFree, contexts[0]},
                                           Call{Kind::kAclFree, contexts[1]},
                                           Call{Kind::kFree, freed[1]},
                                           Call{Kind::kFree, freed[2]}));
  for (void* block : {kept[1], kept[2], freed[3]}) {
    rte_free(block);
  }
}

TEST_F(AclDbTest, NothingLeftNeedsNoGracePeriod) {
  Mio::Ptr<AclDb> db = getOrMake();
  db->getAclCtxTableByTarget(6)->slots[0].generation = 4;
  db.reset();
  getOrMake();
  EXPECT_THAT(RteCalls::log(), IsEmpty());
}

// Entries 1 to 3 own a block, numUserdata is 3: the entries 0, 1 and 2 are
// released, and the last block stays.
TEST(ReleaseUserdata, VisitsTheEntriesBelowTheCountForTarget6) {
  AclCtxData* record = makeRecord("six", 3);
  const std::vector<void*> blocks = blocksOf(*record);
  RteCalls::log().clear();
  QuilModules::releaseUserdata(record, 6);
  EXPECT_THAT(RteCalls::log(), ElementsAre(Call{Kind::kFree, nullptr},
                                           Call{Kind::kFree, blocks[1]},
                                           Call{Kind::kFree, blocks[2]}));
  EXPECT_EQ(record->userdata, nullptr);
  EXPECT_EQ(record->numUserdata, 3u);
  rte_free(blocks[3]);
  rte_acl_free(record->ctx);
  delete record;
}

TEST(ReleaseUserdata, SkipsEmptyEntriesForTarget5) {
  AclCtxData* record = makeRecord("five", 3);
  const std::vector<void*> blocks = blocksOf(*record);
  RteCalls::log().clear();
  QuilModules::releaseUserdata(record, 5);
  EXPECT_THAT(RteCalls::log(), ElementsAre(Call{Kind::kFree, blocks[1]},
                                           Call{Kind::kFree, blocks[2]}));
  EXPECT_EQ(record->userdata, nullptr);
  rte_free(blocks[3]);
  rte_acl_free(record->ctx);
  delete record;
}

TEST(ReleaseUserdata, OtherTargetsOwnNoBlocks) {
  for (const unsigned target : {0u, 1u, 4u, 7u, 100u}) {
    AclCtxData* record = makeRecord("other", 2);
    const std::vector<void*> blocks = blocksOf(*record);
    RteCalls::log().clear();
    QuilModules::releaseUserdata(record, target);
    EXPECT_THAT(RteCalls::log(), IsEmpty());
    EXPECT_EQ(record->userdata, nullptr);
    rte_free(blocks[1]);
    rte_free(blocks[2]);
    rte_acl_free(record->ctx);
    delete record;
  }
}

TEST(ReleaseUserdata, FreesTheArrayOfNoRules) {
  AclCtxData record{nullptr, new KoAclUserdata_[1]{}, 0};
  const Watched array(record.userdata);
  QuilModules::releaseUserdata(&record, 6);
  EXPECT_TRUE(array.deleted());
  EXPECT_EQ(record.userdata, nullptr);
}

TEST(ReleaseUserdata, TakesARecordWithoutUserdata) {
  AclCtxData record{nullptr, nullptr, 3};
  RteCalls::log().clear();
  QuilModules::releaseUserdata(&record, 6);
  EXPECT_THAT(RteCalls::log(), IsEmpty());
  EXPECT_EQ(record.userdata, nullptr);
}

}  // namespace
