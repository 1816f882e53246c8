// SPDX-License-Identifier: BSD-3-Clause
//
// Classifiers that were replaced: freed after a grace period, with what they
// own, but for the last flow's block.

// rcu_dereference as the atomic load that workers make.
#define URCU_INLINE_SMALL_FUNCTIONS

#include <rte_acl.h>
#include <rte_malloc.h>
#include <urcu-qsbr.h>

#include <atomic>
#include <cstddef>
#include <thread>

#include "modules/openflow/tables/acl_retire.h"
#include "tests/control/control_test.h"
#include "tests/support/watched.h"

namespace openflow_test {
namespace {

using testing::ElementsAre;

using Retirement = FamilyTest;

INSTANTIATE_FAMILIES(Retirement);

TEST_P(Retirement, TheOldClassifierIsFreedAfterAGracePeriod) {
  update(message().add(Flow(1, 1)).add(Flow(2, 1)).add(Flow(3, 1)));
  const QuilModules::AclCtxData old = *mine().data;
  std::vector<void*> blocks;
  for (uint32_t i = 0; i <= 3; i++) blocks.push_back(old.userdata[i].action);

  Reader reader;
  update(message().erase(1));
  EXPECT_NE(mine().data->ctx, old.ctx);
  letWrongReleasesShow();
  EXPECT_TRUE(Calls::state().aclFrees.empty());
  EXPECT_THAT(Calls::liveArrays(userdataSize(4)),
              testing::Contains(old.userdata));
  reader.leave();
  rcu_barrier();
  EXPECT_THAT(Calls::state().aclFrees, ElementsAre(old.ctx));
  EXPECT_THAT(Calls::liveArrays(userdataSize(4)),
              ElementsAre(mine().data->userdata));
  // Records 0 to numFlows - 1; the last flow's block is not released.
  EXPECT_EQ(Calls::countFrees(nullptr), 1);
  EXPECT_EQ(Calls::countFrees(blocks[1]), 1);
  EXPECT_EQ(Calls::countFrees(blocks[2]), 1);
  EXPECT_EQ(Calls::countFrees(blocks[3]), 0);
  EXPECT_EQ(rte_acl_find_existing(contextName(1).c_str()), nullptr);
  rte_free(blocks[3]);
}

TEST_P(Retirement, AnEmptiedSlotsClassifierIsFreedAfterAGracePeriod) {
  update(message().add(Flow(1, 1)));
  const rte_acl_ctx* ctx = mine().data->ctx;
  Reader reader;
  const TraceMark mark;
  update(message().erase(1));
  EXPECT_EQ(mine().data, nullptr);
  EXPECT_FALSE(
      mark.contains("updateAclCtx Allocating new acl context user data"));
  letWrongReleasesShow();
  EXPECT_TRUE(Calls::state().aclFrees.empty());
  reader.leave();
  rcu_barrier();
  EXPECT_THAT(Calls::state().aclFrees, ElementsAre(ctx));
  EXPECT_EQ(mine().generation, 1u);
}

TEST_P(Retirement, AnEmptiedTableDeletesItsUserdataArray) {
  update(message().add(Flow(1, 1)));
  update(message().add(Flow(2, 1)).erase(1).erase(2));
  rcu_barrier();
  EXPECT_TRUE(Calls::liveArrays(userdataSize(3)).empty()) << "of the update";
  EXPECT_TRUE(Calls::liveArrays(userdataSize(2)).empty())
      << "of the build before";
}

TEST_P(Retirement, SeveralGenerationsLiveAtOnce) {
  Reader reader;
  for (int i = 0; i < 5; i++) {
    update(message().add(Flow(1, 1 + i)));
  }
  for (uint32_t generation = 1; generation <= 5; generation++) {
    EXPECT_NE(rte_acl_find_existing(contextName(generation).c_str()), nullptr);
  }
  reader.leave();
  rcu_barrier();
  EXPECT_EQ(Calls::state().aclFrees.size(), 4u);
  EXPECT_NE(rte_acl_find_existing(contextName(5).c_str()), nullptr);
}

// A worker's view while updates come in: classifier and actions are of one
// update.
TEST_P(Retirement, ReadersSeeOneGenerationAtATime) {
  const auto flows = [&](uint32_t version) {
    return message()
        .add(Flow(1, 10).ipProto(6).counters(6, version))
        .add(Flow(2, 10).ipProto(17).counters(17, version));
  };
  update(flows(0));
  std::atomic<bool> done{false};
  std::atomic<int> wrong{0};
  std::atomic<uint32_t> lookups{0};
  const QuilModules::AclCtx& published = mine();
  std::thread worker([&] {
    rcu_register_thread();
    OfIpv6Key keys[2]{};
    keys[0].l2.ipProto = 6;
    keys[1].l2.ipProto = 17;
    const uint8_t* bytes[2] = {reinterpret_cast<const uint8_t*>(&keys[0]),
                               reinterpret_cast<const uint8_t*>(&keys[1])};
    uint32_t last = 0;
    while (!done) {
      const QuilModules::AclCtxData* data = rcu_dereference(published.data);
      uint32_t results[2] = {};
      rte_acl_classify(data->ctx, bytes, results, 2, 1);
      const auto* tcp =
          static_cast<const OfFlowAction*>(data->userdata[results[0]].action);
      const auto* udp =
          static_cast<const OfFlowAction*>(data->userdata[results[1]].action);
      if (tcp == nullptr || udp == nullptr || tcp->packetCounterId != 6 ||
          udp->packetCounterId != 17 ||
          tcp->byteCounterId != udp->byteCounterId ||
          tcp->byteCounterId < last) {
        wrong++;
        break;
      }
      last = tcp->byteCounterId;
      lookups++;
      rcu_quiescent_state();
    }
    rcu_unregister_thread();
  });
  for (uint32_t version = 1; version <= 100 || lookups < 1000; version++) {
    if (wrong != 0) break;
    update(flows(version));
    rcu_quiescent_state();
  }
  done = true;
  rcu_thread_offline();
  worker.join();
  rcu_thread_online();
  EXPECT_EQ(wrong, 0);
  EXPECT_GE(lookups, 1000u);
}

class UpdateAclCtx : public ControlTest {
 protected:
  rte_acl_ctx* context() {
    rte_acl_param param = {};
    param.name = "update-acl-ctx";
    param.socket_id = SOCKET_ID_ANY;
    param.rule_size = 352;
    param.max_rule_num = 1;
    return rte_acl_create(&param);
  }
};

TEST_F(UpdateAclCtx, PublishesARecord) {
  rte_acl_ctx* ctx = context();
  auto* userdata = new QuilModules::KoAclUserdata[4]();
  EXPECT_EQ(module().updateAclCtx(&slot(5), ctx, userdata, 3), 0);
  ASSERT_NE(slot(5).data, nullptr);
  EXPECT_EQ(slot(5).data->ctx, ctx);
  EXPECT_EQ(slot(5).data->userdata, userdata);
  EXPECT_EQ(slot(5).data->numUserdata, 3u);
  EXPECT_EQ(slot(5).generation, 0u) << "only builds count";
  EXPECT_EQ(module().updateAclCtx(&slot(5), nullptr, nullptr, 0), 0);
  EXPECT_EQ(slot(5).data, nullptr);
  rcu_barrier();
  EXPECT_THAT(Calls::state().aclFrees, ElementsAre(ctx));
  EXPECT_EQ(module().updateAclCtx(&slot(5), nullptr, nullptr, 0), 0);
  rcu_barrier();
  EXPECT_EQ(Calls::state().aclFrees.size(), 1u);
}

// DeInit marks the classifier that it freed in a slot. A later one may get the
// same address; it is the slot's own again.
TEST_F(UpdateAclCtx, TheMarkOfAFreedClassifierGoesWithItsRecord) {
  rte_acl_ctx* ctx = context();
  slot(5).freedCtx = ctx;
  module().updateAclCtx(&slot(5), ctx, nullptr, 0);
  EXPECT_EQ(slot(5).freedCtx, nullptr);
  module().updateAclCtx(&slot(5), nullptr, nullptr, 0);
  rcu_barrier();
  EXPECT_THAT(Calls::state().aclFrees, ElementsAre(ctx));
}

TEST(AclCtxRetire, HasTheCallbacksLayout) {
  EXPECT_EQ(offsetof(AclCtxRetire, data), 0u);
  EXPECT_EQ(offsetof(AclCtxRetire, target), 8u);
  EXPECT_GT(offsetof(AclCtxRetire, head), 8u);
  EXPECT_EQ(offsetof(QuilModules::AclCtxData, ctx), 0u);
  EXPECT_EQ(offsetof(QuilModules::AclCtxData, userdata), 8u);
  EXPECT_EQ(offsetof(QuilModules::AclCtxData, numUserdata), 16u);
}

// What the callback frees of a record's blocks, by target.
TEST(AclCtxRetire, TheTargetSaysWhichBlocksAreFreed) {
  struct Row {
    uint32_t target;
    int nullFrees;
    int blockFrees;
  };
  for (const Row& row : {Row{6, 2, 1}, {5, 0, 1}, {0, 0, 0}, {7, 0, 0}}) {
    SCOPED_TRACE(row.target);
    const Calls::Scope calls;
    void* block = rte_malloc("block", 64, 64);
    void* last = rte_malloc("block", 64, 64);
    auto* userdata = new QuilModules::KoAclUserdata[4]();
    userdata[1].action = block;
    userdata[3].action = last;  // beyond the bound
    auto* data = new QuilModules::AclCtxData{nullptr, userdata, 3};
    auto* retire = new AclCtxRetire{data, row.target, {}};
    const Watched theRecord(data);
    const Watched theRetirement(retire);
    freeAcxAsync(&retire->head);
    EXPECT_TRUE(theRecord.deleted());
    EXPECT_TRUE(theRetirement.deleted());
    EXPECT_THAT(Calls::state().aclFrees, ElementsAre(nullptr));
    EXPECT_EQ(Calls::countFrees(nullptr), row.nullFrees);
    EXPECT_EQ(Calls::countFrees(block), row.blockFrees);
    EXPECT_EQ(Calls::countFrees(last), 0);
    EXPECT_TRUE(Calls::liveArrays(userdataSize(4)).empty());
    if (row.blockFrees == 0) rte_free(block);
    rte_free(last);
  }
}

TEST(AclCtxRetire, ARecordWithoutUserdataIsFine) {
  const Calls::Scope calls;
  auto* data = new QuilModules::AclCtxData{nullptr, nullptr, 3};
  auto* retire = new AclCtxRetire{data, kAclTarget, {}};
  freeAcxAsync(&retire->head);
  EXPECT_TRUE(Calls::state().frees.empty());
}

}  // namespace
}  // namespace openflow_test
