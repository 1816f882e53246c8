// SPDX-License-Identifier: BSD-3-Clause
//
// One table's pass by itself: what it leaves in the batches, in the packets
// that came in, in the task and in the traces.
#include <gmock/gmock.h>

#include <cstring>
#include <utility>

#include "module.h"
#include "modules/openflow/openflow.h"
#include "tests/datapath/datapath_test.h"
#include "tests/support/openflow_peer.h"
#include "tests/support/packet_factory.h"
#include "tests/support/traces.h"

namespace openflow_test {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;

// A gate that leads nowhere: its copies are dropped, where a test can look at
// them.
constexpr uint32_t kUnconnected = 9;

constexpr uint64_t kMetadata = 0x1122334455667788;

class Pass : public DataPath {
 protected:
  Pass() : task_(&harness().hostModule(), nullptr) {
    ctx_.wid = 9;
    ctx_.task = &task_;
    task_.StartRun(&ctx_);
  }

  ~Pass() override {
    task_.FreePending();
    for (bess::PacketBatch* batch : batches_) {
      if (batch != nullptr) bess::Packet::Free(batch);
    }
    EXPECT_EQ(factory_.free(), kBuffers);
  }

  bess::Packet* make(const InputPacket& packet) {
    return factory_.make(packet);
  }

  // Hands the packets to the pass of `table`. They are the dead batch's then.
  void pass(uint8_t table, const std::vector<bess::Packet*>& packets) {
    bess::PacketBatch batch;
    batch.clear();
    for (bess::Packet* packet : packets) batch.add(packet);
    batches_[table] = &batch;
    harness().module().processTableBatch(&ctx_, table, batches_);
    EXPECT_EQ(batches_[table], &batch);
    EXPECT_THAT(listOf(batch), ElementsAreArray(packets))
        << "the table's batch is left as it is";
    batches_[table] = nullptr;
  }

  static std::vector<bess::Packet*> listOf(bess::PacketBatch& batch) {
    return {batch.pkts(), batch.pkts() + batch.cnt()};
  }
  std::vector<bess::Packet*> dead() { return listOf(*task_.dead_batch()); }

  static Bytes bytesOf(const bess::Packet* packet) {
    const auto* start = packet->head_data<const uint8_t*>();
    return {start, start + packet->head_len()};
  }

  static Bytes areaOf(const bess::Packet* packet) {
    const auto* start = packet->metadata<const uint8_t*>();
    return {start, start + bess::Packet::kMetadataSize};
  }

  // The batches that the task hands out lie in a row.
  int batchesTakenSince(const bess::PacketBatch* first) {
    return static_cast<int>(task_.AllocPacketBatch() - first) - 1;
  }

  static constexpr size_t kBuffers = 127;
  PacketFactory factory_{kBuffers};
  Task task_;
  Context ctx_;
  bess::PacketBatch* batches_[kFlowTables] = {};
};

Flow any() { return Flow(1, 10); }

TEST_F(Pass, DropsEachPacketBehindItsCopies) {
  add(0, {any().output({kUnconnected, kUnconnected})});
  const std::vector<bess::Packet*> in = {make(tcpFrame()), make(tcpFrame())};
  const uint64_t before = harness().hostModule().deadends(ctx_.wid);
  pass(0, in);
  const std::vector<bess::Packet*> out = dead();
  ASSERT_EQ(out.size(), 6u);
  EXPECT_EQ(out[2], in[0]);
  EXPECT_EQ(out[5], in[1]);
  EXPECT_EQ(harness().hostModule().deadends(ctx_.wid), before + 6);
}

// Whatever becomes of the packet, the rewrites have been applied to it, and the
// copies are made of what came out.
TEST_F(Pass, RewritesThePacketItself) {
  const std::pair<const char*, Flow> rows[] = {
      {"no output", any()},
      {"drop", any().drop()},
      {"empty list", any().output({})},
      {"in-port left out", any().flood({0})},
      {"goto nowhere", any().gotoTable(0)},
      {"port", any().output({kUnconnected})},
      {"drop beside a port", any().output({kUnconnected}).drop()},
  };
  for (const auto& [name, flow] : rows) {
    SCOPED_TRACE(name);
    add(0, {Flow(flow).setVlanVid(100).decTtl().setL4DstPort(443)});
    const InputPacket packet(tcpFrame(), MetadataBlock{}.withInPort(0));
    pass(0, {make(packet)});
    EXPECT_FALSE(dead().empty());
    for (const bess::Packet* left : dead()) {
      EXPECT_EQ(
          hexDump(bytesOf(left)),
          hexDump(Frame::eth().vlan(100).ipv4(kIpA, kIpB).ttl(63).tcp(7, 443)));
      EXPECT_EQ(left->total_len(), 58);
    }
    task_.FreePending();
  }
}

TEST_F(Pass, LeavesAPacketThatMissesAsItIs) {
  add(0, {any().ipProto(17).setVlanVid(100).decTtl().output({1})});
  bess::Packet* packet = make(tcpFrame());
  pass(0, {packet});
  EXPECT_THAT(dead(), ElementsAre(packet));
  EXPECT_EQ(hexDump(bytesOf(packet)), hexDump(tcpFrame()));
}

// Other modules' bits and bytes of the metadata area, and our own: what comes
// in is only read.
TEST_F(Pass, LeavesTheMetadataOfWhatCameIn) {
  for (const uint64_t flags : {~uint64_t{0}, uint64_t{0}}) {
    MetadataBlock block = MetadataBlock{}
                              .withMetadata(kMetadata)
                              .withInPort(0x50002)
                              .withStartTable(4)
                              .withPuntWord(0x41);
    block.flags = flags;
    for (const Flow& flow :
         {any().trap(7).gotoTable(6).output({1}).outputInPort(),
          any().controller(1).drop(), any(), any().ipProto(17)}) {
      add(4, {flow});
      bess::Packet* packet = make(InputPacket(tcpFrame(), block));
      const Bytes before = areaOf(packet);
      pass(4, {packet});
      EXPECT_EQ(hexDump(areaOf(packet)), hexDump(before));
      task_.FreePending();
      if (batches_[6] != nullptr) {
        bess::Packet::Free(std::exchange(batches_[6], nullptr));
      }
    }
  }
}

// Flows have one output list at most. A record with two is served with both:
// the one without the in-port, of which there is one, then the whole one.
TEST_F(Pass, ServesSeveralOutputListsOfARecord) {
  add(0, {any().output({1, 2})});
  const QuilModules::AclCtx* slot =
      OpenFlowPeer::table(harness().module(), 0).ipv4.aclCtx;
  auto* record = static_cast<OfFlowAction*>(slot->data->userdata[1].action);
  const auto copies = [&] {
    const RunResult result =
        harness().run({InputPacket(tcpFrame(), MetadataBlock{}.withInPort(2))});
    EXPECT_EQ(result.drops, 1u);
    EXPECT_TRUE(result.tables.empty()) << result;
    return std::pair(result.gate(1).size(), result.gate(2).size());
  };
  record->fields.setOutputAll = 1;
  EXPECT_EQ(copies(), std::pair(2ul, 1ul));
  record->fields.setOutputFlood = 1;
  EXPECT_EQ(copies(), std::pair(2ul, 1ul));
  record->fields.setOutputAll = 0;
  EXPECT_EQ(copies(), std::pair(2ul, 1ul));
  record->fields.setOutputPort = 0;
  EXPECT_EQ(copies(), std::pair(1ul, 0ul));
  record->fields.setOutputAll = 1;
  EXPECT_EQ(copies(), std::pair(1ul, 0ul));
}

// ---- What waits for a later table.

MetadataBlock blockOf(const bess::Packet* packet) {
  MetadataBlock block;
  const auto* area = packet->metadata<const uint8_t*>();
  memcpy(&block.flags, area + kFlagsOffset, sizeof(block.flags));
  memcpy(&block.metadata, area + kMetadataOffset, sizeof(block.metadata));
  memcpy(&block.inPort, area + kInPortOffset, sizeof(block.inPort));
  return block;
}

constexpr uint64_t kGotoFlags =
    MetadataBlock::kMetadataValid | MetadataBlock::kInPortValid;

TEST_F(Pass, GotoCopyTakesMetadataAndWholeInPortAlong) {
  add(4, {any().setVlanVid(100).gotoTable(6)});
  bess::Packet* packet =
      make(InputPacket(tcpFrame(), MetadataBlock{}
                                       .withMetadata(kMetadata)
                                       .withInPort(0x98760002)
                                       .withStartTable(4)
                                       .withPuntWord(0x41)));
  pass(4, {packet});
  ASSERT_NE(batches_[6], nullptr);
  ASSERT_EQ(batches_[6]->cnt(), 1);
  const bess::Packet* copy = batches_[6]->pkts()[0];
  EXPECT_NE(copy, packet);
  EXPECT_EQ(hexDump(bytesOf(copy)), hexDump(tcpFrame().vlan(100)));
  const MetadataBlock block = blockOf(copy);
  EXPECT_EQ(block.flags, kGotoFlags) << "no start table, no punt word";
  EXPECT_EQ(block.metadata, kMetadata);
  EXPECT_EQ(block.inPort, 0x98760002u);
}

TEST_F(Pass, GotoCopyOfAPacketWithoutValuesHasZeros) {
  add(0, {any().gotoTable(31)});
  MetadataBlock block;
  block.metadata = kMetadata;
  block.inPort = 3;
  pass(0, {make(InputPacket(tcpFrame(), block))});
  ASSERT_NE(batches_[31], nullptr);
  const MetadataBlock copied = blockOf(batches_[31]->pkts()[0]);
  EXPECT_EQ(copied.flags, kGotoFlags);
  EXPECT_EQ(copied.metadata, 0u);
  EXPECT_EQ(copied.inPort, 0u);
}

TEST_F(Pass, GotoCopiesWaitBehindWhatIsThere) {
  add(0, {any().gotoTable(5)});
  bess::PacketBatch later;
  later.clear();
  bess::Packet* first = make(Frame::eth().arp(kIpA, kIpB));
  later.add(first);
  batches_[5] = &later;
  pass(0, {make(Frame::eth().ipv4(kIpA, kIpB).tcp(1, 2)),
           make(Frame::eth().ipv4(kIpA, kIpB).tcp(3, 4))});
  EXPECT_EQ(batches_[5], &later);
  ASSERT_EQ(later.cnt(), 3);
  EXPECT_EQ(later.pkts()[0], first);
  EXPECT_EQ(bytesOf(later.pkts()[1]), bytesOf(dead()[0]));
  EXPECT_EQ(bytesOf(later.pkts()[2]), bytesOf(dead()[1]));
  bess::Packet::Free(std::exchange(batches_[5], nullptr));
}

// ---- Batches of the task, of which there are 1024 a run.

TEST_F(Pass, TablesTakeABatchWhenTheyFirstGetAPacket) {
  add(0, {any().gotoTable(3)});
  add(2, {any().gotoTable(3)});
  add(3, {any().drop()});
  bess::PacketBatch in;
  const bess::PacketBatch* first = task_.AllocPacketBatch();
  in.clear();
  harness().module().ProcessBatch(&ctx_, &in);
  EXPECT_EQ(batchesTakenSince(first), 0) << "nothing came in";

  first = task_.AllocPacketBatch();
  for (int i = 0; i < 5; i++) in.add(make(tcpFrame()));
  harness().module().ProcessBatch(&ctx_, &in);
  EXPECT_EQ(batchesTakenSince(first), 2) << "for tables 0 and 3";
  EXPECT_EQ(in.cnt(), 5);

  first = task_.AllocPacketBatch();
  in.clear();
  for (const uint16_t start : {2, 0, 2, 3, 0}) {
    in.add(
        make(InputPacket(tcpFrame(), MetadataBlock{}.withStartTable(start))));
  }
  harness().module().ProcessBatch(&ctx_, &in);
  EXPECT_EQ(batchesTakenSince(first), 3) << "for tables 0, 2 and 3";
}

// ---- No statement of the data path traces.

TEST_F(Pass, TracesNothing) {
  add(1, {any().ipProto(17).output({1})});
  add(2, {any().drop()});
  add(3, {any()});
  add(4, {any().decTtl().output({1, kUnconnected}).trap(1).gotoTable(5)});
  OpenFlowTable& unbound = OpenFlowPeer::table(harness().module(), 6);
  QuilModules::AclCtx* slot = std::exchange(unbound.ipv4.aclCtx, nullptr);
  const TraceMark mark;
  bess::PacketBatch in;
  in.clear();
  for (uint16_t start = 0; start < 8; start++) {
    in.add(
        make(InputPacket(tcpFrame(), MetadataBlock{}.withStartTable(start))));
  }
  in.add(make(InputPacket(tcpFrame(), MetadataBlock{}.withStartTable(40))));
  const uint64_t before = unbound.counters[kNoAclCtx];
  harness().module().ProcessBatch(&ctx_, &in);
  EXPECT_TRUE(mark.entries().empty());
  EXPECT_EQ(unbound.counters[kNoAclCtx], before + 1);
  unbound.ipv4.aclCtx = slot;
}

}  // namespace
}  // namespace openflow_test
