// SPDX-License-Identifier: BSD-3-Clause
//
// The bench itself: what it must notice, and what it must refuse.
#include <gtest/gtest.h>

#include <algorithm>

#include "packet.h"
#include "tests/support/frame.h"
#include "tests/support/module_harness.h"
#include "tests/support/openflow_peer.h"
#include "tests/support/packet_factory.h"
#include "tests/support/traces.h"

namespace openflow_test {
namespace {

const Bytes kFrame =
    Frame::eth().ipv4(ip4("10.0.0.1"), ip4("10.0.0.2")).tcp(7, 80).payload(200);

Bytes bytesOf(const bess::Packet* packet) {
  Bytes bytes;
  for (const rte_mbuf* m = packet->mbuf(); m != nullptr; m = m->next) {
    const auto* data = rte_pktmbuf_mtod(m, const uint8_t*);
    bytes.insert(bytes.end(), data, data + m->data_len);
  }
  return bytes;
}

class Factory : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { ModuleHarness::startEal(); }

  // Makes the packet, looks at it, and frees it.
  void with(const InputPacket& input,
            const std::function<void(bess::Packet*)>& look) {
    const size_t before = factory_.free();
    bess::Packet* packet = factory_.make(input);
    EXPECT_EQ(bytesOf(packet), input.bytes);
    EXPECT_EQ(packet->total_len(), static_cast<int>(input.bytes.size()));
    look(packet);
    bess::Packet::Free(packet);
    EXPECT_EQ(factory_.free(), before);
  }

  PacketFactory factory_{63};
};

TEST_F(Factory, HeadroomAndFill) {
  InputPacket input(kFrame);
  input.headroom = 5;
  input.fill = 0x77;
  with(input, [](bess::Packet* packet) {
    EXPECT_EQ(packet->headroom(), 5);
    EXPECT_EQ(packet->tailroom(), kBufferSize - 5 - kFrame.size());
    EXPECT_EQ(packet->head_data<uint8_t*>()[-1], 0x77);
    EXPECT_EQ(packet->head_data<uint8_t*>()[kFrame.size()], 0x77);
  });
}

TEST_F(Factory, Segments) {
  InputPacket input(kFrame);
  input.segments = {100, 0, kFrame.size() - 100};
  with(input, [](bess::Packet* packet) {
    EXPECT_EQ(packet->nb_segs(), 3);
    EXPECT_EQ(packet->head_len(), 100);
  });
}

TEST_F(Factory, LongPacketsAreSpreadOverBuffers) {
  with(InputPacket(Bytes(9000, 0x11)), [](bess::Packet* packet) {
    EXPECT_EQ(packet->nb_segs(), 5);
    EXPECT_EQ(packet->head_len(), 2048);
  });
}

TEST_F(Factory, MetadataLiesWhereModulesLook) {
  MetadataBlock block;
  block.withMetadata(0x1122334455667788).withInPort(7).withStartTable(9);
  block.withPuntWord(0xabcdef);
  with(InputPacket(kFrame, block), [](bess::Packet* packet) {
    EXPECT_EQ(*packet->metadata<uint64_t*>(), 0x18003u);
    EXPECT_EQ(packet->metadata<uint64_t*>()[2], 0x1122334455667788u);
    EXPECT_EQ(packet->metadata<uint32_t*>()[13], 7u);
    EXPECT_EQ(packet->metadata<uint16_t*>()[30], 9u);
    EXPECT_EQ(packet->metadata<uint32_t*>()[27], 0xabcdefu);
  });
}

TEST_F(Factory, RefusesShapesThatDoNotFit) {
  InputPacket input(kFrame);
  input.segments = {1, 2};
  EXPECT_THROW(factory_.make(input), std::invalid_argument);
  input.segments.clear();
  input.headroom = kBufferSize + 1;
  EXPECT_THROW(factory_.make(input), std::invalid_argument);
}

TEST_F(Factory, Drain) {
  factory_.drain(2);
  EXPECT_EQ(factory_.free(), 2u);
  factory_.refill();
  EXPECT_EQ(factory_.free(), 63u);
}

class Harness : public ::testing::Test {
 protected:
  ModuleHarness harness_{HarnessOptions{.gates = {0, 3}}};
};

TEST_F(Harness, RefusesMoreThanABatch) {
  EXPECT_THROW(harness_.run(std::vector<InputPacket>(33, kFrame)),
               std::invalid_argument);
}

TEST_F(Harness, DrainedBuffersAreNotLost) {
  harness_.addFlows(0, {Flow(1, 10).output({3})});
  const size_t before = harness_.freePackets();
  harness_.beforeBatch([&] { harness_.drainPool(100); });
  const RunResult result = harness_.run({kFrame});
  EXPECT_EQ(result.leakedPackets, 0);
  EXPECT_EQ(result.gate(3).size(), 1u);
  EXPECT_EQ(harness_.freePackets(), 101u);  // the received packet came back
  harness_.refillPool();
  EXPECT_EQ(harness_.freePackets(), before);
}

TEST_F(Harness, ConnectsOnlyTheGatesAskedFor) {
  harness_.addFlows(0, {Flow(1, 10).output({0, 1, 2, 3})});
  const RunResult result = harness_.run({kFrame});
  EXPECT_EQ(result.gates.size(), 2u);
  EXPECT_EQ(result.gate(0).size(), 1u);
  EXPECT_EQ(result.gate(3).size(), 1u);
  EXPECT_EQ(result.drops, 3u);
}

TEST_F(Harness, FailuresOfTheModuleAreAnswers) {
  quil::pb::OpenFlowGetStatsRespArg stats;
  EXPECT_EQ(harness_.getStats(32, &stats).error().code(), -1);
  EXPECT_NE(harness_.command("noSuchCommand", stats).error().code(), 0);
}

TEST_F(Harness, FailuresInHelpersThrow) {
  EXPECT_THROW(harness_.stats(32), std::runtime_error);
  EXPECT_THROW(harness_.addFlows(32, {}), std::runtime_error);
}

TEST_F(Harness, ClearFlows) {
  harness_.addFlows(3, {Flow(1, 10), Flow(2, 20)});
  harness_.addFlows(3, {Flow(1, 10)}, Family::kIpv6);
  harness_.clearFlows();
  EXPECT_EQ(harness_.stats(3).numflows(), 0u);
  EXPECT_EQ(harness_.stats(3).numipv6flows(), 0u);
}

TEST_F(Harness, PeerShowsTheTables) {
  harness_.addFlows(5, {Flow(1, 10)});
  EXPECT_EQ(OpenFlowPeer::table(harness_.module(), 5).ipv4.numFlows, 1u);
  EXPECT_EQ(OpenFlowPeer::aclConfig(harness_.module()).num_fields, 21u);
}

TEST_F(Harness, SeveralAtOnceWithSlotsOfTheirOwn) {
  ModuleHarness other({.gates = {4}, .firstSlot = 100});
  harness_.addFlows(0, {Flow(1, 10).output({3})});
  other.addFlows(0, {Flow(1, 10).output({4})});
  EXPECT_EQ(harness_.run({kFrame}).gate(3).size(), 1u);
  EXPECT_EQ(other.run({kFrame}).gate(4).size(), 1u);
}

TEST_F(Harness, RingTraces) {
  const TraceMark mark;
  harness_.deleteFlows(4, {77});
  EXPECT_TRUE(mark.contains("deleteFlow Flow not found for flowId: 77"));
  EXPECT_FALSE(
      TraceMark().contains("deleteFlow Flow not found for flowId: 77"));
  const std::vector<std::string> steps = mark.texts(2);
  EXPECT_EQ(std::count(steps.begin(), steps.end(),
                       "updateFlows tableId: 4 flowType: 0"),
            1);
}

TEST_F(Harness, TextTraces) {
  const TextTrace text(1u << 2);
  harness_.deleteFlows(4, {78});
  const std::vector<std::string> lines = text.lines();
  EXPECT_EQ(std::count(lines.begin(), lines.end(),
                       "deleteFlow Flow not found for flowId: 78"),
            1);
}

}  // namespace
}  // namespace openflow_test
