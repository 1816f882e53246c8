// SPDX-License-Identifier: BSD-3-Clause
//
// Lookups that fail for a whole batch: the library refuses to classify, or a
// published record is not what it has to be.
#include <dlfcn.h>
#include <rte_acl.h>

#include <utility>

#include "packet_pool.h"
#include "tests/datapath/datapath_test.h"
#include "tests/support/openflow_peer.h"

namespace {

// Counts down to the call that fails; 0 for none.
int failingCall = 0;

}  // namespace

// The program's own version of the library's function.
extern "C" int rte_acl_classify(const rte_acl_ctx* ctx, const uint8_t** data,
                                uint32_t* results, uint32_t num,
                                uint32_t categories) {
  using Classify = decltype(&rte_acl_classify);
  static const auto real =
      reinterpret_cast<Classify>(dlsym(RTLD_NEXT, "rte_acl_classify"));
  if (failingCall > 0 && --failingCall == 0) return -EINVAL;
  return real(ctx, data, results, num, categories);
}

namespace openflow_test {
namespace {

class LookupFailure : public DataPath {
 protected:
  void TearDown() override { failingCall = 0; }

  // Both families classify in table 0, which sends everything to gate 1.
  void addBoth() {
    add(0, {Flow(1, 10).counters(kPackets, kByteCount).output({1})});
    add(0, {Flow(1, 5).output({2})}, Family::kIpv6);
  }

  void expectBatchDropped(int call) {
    SCOPED_TRACE(call);
    failingCall = call;
    const RunResult result =
        harness().run(std::vector<InputPacket>(7, tcpFrame()));
    EXPECT_EQ(failingCall, 0) << "the call was not made";
    EXPECT_EQ(result.numEmitted(), 0u);
    EXPECT_EQ(result.table(0).classifyErrors, 1u);
    EXPECT_EQ(result.table(0).batchDrops, 1u);
    EXPECT_EQ(result.table(0).tableMisses, 0u);
    EXPECT_EQ(result.drops, 0u);
    EXPECT_TRUE(result.flowCounters.empty());
    EXPECT_EQ(result.leakedPackets, 0);
  }
};

TEST_F(LookupFailure, OfTheIpv4Classifier) {
  addBoth();
  expectBatchDropped(1);
}

TEST_F(LookupFailure, OfTheIpv6Classifier) {
  addBoth();
  expectBatchDropped(2);
}

TEST_F(LookupFailure, NextBatchIsNotAffected) {
  addBoth();
  expectBatchDropped(1);
  runOne(tcpFrame(), 1);
}

// Whoever looks at the batch later finds no freed packets in it.
TEST_F(LookupFailure, LeavesTheTablesBatchEmpty) {
  addBoth();
  bess::PacketPool pool(7, 0);
  bess::PacketBatch batch;
  batch.clear();
  for (int i = 0; i < 5; i++) {
    batch.add(pool.Alloc(60));
  }
  bess::PacketBatch* tableBatches[kNumTables] = {&batch};
  Context ctx;
  failingCall = 1;
  harness().module().processTableBatch(&ctx, 0, tableBatches);
  EXPECT_TRUE(batch.empty());
  EXPECT_EQ(tableBatches[0], &batch);
  EXPECT_EQ(pool.available(), 7u);
}

// One call for each family, whatever the number of packets.
TEST_F(LookupFailure, FamiliesAreClassifiedOnceEach) {
  addBoth();
  failingCall = 3;
  run(std::vector<InputPacket>(kMaxBatch, tcpFrame()));
  EXPECT_EQ(failingCall, 1);
}

TEST_F(LookupFailure, FamilyWithoutClassifierIsNotClassified) {
  add(0, {Flow(1, 5).output({2})}, Family::kIpv6);
  failingCall = 2;
  run({tcpFrame()});
  EXPECT_EQ(failingCall, 1);
}

TEST_F(LookupFailure, OtherTablesGoOn) {
  addBoth();
  add(1, {Flow(1, 10).output({3})});
  failingCall = 1;
  const RunResult result = harness().run(
      {tcpFrame(), InputPacket(tcpFrame(), MetadataBlock{}.withStartTable(1))});
  EXPECT_EQ(result.gate(3).size(), 1u);
  EXPECT_EQ(result.numEmitted(), 1u);
  EXPECT_EQ(result.table(0).classifyErrors, 1u);
  EXPECT_EQ(result.drops, 1u);
}

// All tables in a chain, two calls for each: the pass that fails is the last
// one, and the tables before it have done their work.
TEST_F(LookupFailure, InTheFirstAMiddleAndTheLastTableOfAChain) {
  for (uint32_t t = 0; t < kFlowTables; t++) {
    const Flow flow = t + 1 < kFlowTables
                          ? Flow(1, 10).output({1}).gotoTable(t + 1)
                          : Flow(1, 10).output({1});
    add(t, {flow});
    add(t, {Flow(1, 5).output({2})}, Family::kIpv6);
  }
  const std::vector<InputPacket> packets(kMaxBatch, tcpFrame());
  for (const int call : {1, 2, 33, 34, 63, 64}) {
    SCOPED_TRACE(call);
    failingCall = call;
    const auto table = static_cast<unsigned>(call - 1) / 2;
    const RunResult result = harness().run(packets);
    EXPECT_EQ(failingCall, 0);
    EXPECT_EQ(result.gate(1).size(), table * kMaxBatch);
    EXPECT_EQ(result.drops, table * kMaxBatch);
    EXPECT_EQ(result.tables.size(), 1u);
    EXPECT_EQ(result.table(table).classifyErrors, 1u);
    EXPECT_EQ(result.table(table).batchDrops, 1u);
    EXPECT_EQ(result.leakedPackets, 0);
  }
}

TEST_F(LookupFailure, BothFamiliesNeedASlot) {
  addBoth();
  OpenFlowTable& table = OpenFlowPeer::table(harness().module(), 0);
  const auto expectDropped = [&] {
    const RunResult result = harness().run({tcpFrame()});
    EXPECT_EQ(result.numEmitted(), 0u);
    EXPECT_EQ(result.table(0).noAclCtx, 1u);
    EXPECT_EQ(result.table(0).batchDrops, 1u);
  };
  QuilModules::AclCtx* slot = std::exchange(table.ipv4.aclCtx, nullptr);
  expectDropped();
  table.ipv4.aclCtx = slot;
  slot = std::exchange(table.ipv6.aclCtx, nullptr);
  expectDropped();
  table.ipv6.aclCtx = slot;
  runOne(tcpFrame(), 1);
}

using LookupDeathTest = LookupFailure;

// What an update leaves that had no memory for a flow's action.
TEST_F(LookupDeathTest, AMatchedFlowNeedsItsAction) {
  for (const Family family : {Family::kIpv4, Family::kIpv6}) {
    add(0, {Flow(1, 10).ipProto(6).output({1})}, family);
    OpenFlowTable& table = OpenFlowPeer::table(harness().module(), 0);
    const QuilModules::AclCtx* slot =
        family == Family::kIpv4 ? table.ipv4.aclCtx : table.ipv6.aclCtx;
    void* action = std::exchange(slot->data->userdata[1].action, nullptr);
    const Frame tcp = family == Family::kIpv4
                          ? tcpFrame()
                          : Frame::eth().ipv6(kIp6A, kIp6B).tcp(7, 80);
    EXPECT_DEATH(harness().run({tcp}), "");
    // Others do not meet it.
    EXPECT_EQ(harness().run({Frame::eth().arp(kIpA, kIpB)}).numEmitted(), 0u);
    slot->data->userdata[1].action = action;
    harness().clearFlows();
  }
}

TEST_F(LookupDeathTest, PublishedIpv6RecordNeedsAClassifier) {
  addBoth();
  QuilModules::AclCtx* slot =
      OpenFlowPeer::table(harness().module(), 0).ipv6.aclCtx;
  rte_acl_ctx* ctx = slot->data->ctx;
  slot->data->ctx = nullptr;
  EXPECT_DEATH(harness().run({tcpFrame()}), "acx6");
  slot->data->ctx = ctx;
}

}  // namespace
}  // namespace openflow_test
