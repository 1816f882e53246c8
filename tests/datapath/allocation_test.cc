// SPDX-License-Identifier: BSD-3-Clause
//
// A worker takes its batches through the module, and back from it, without a
// call of any heap's functions.
#include <gtest/gtest.h>
#include <rte_malloc.h>

#include <array>
#include <cstdlib>
#include <new>
#include <utility>
#include <vector>

#include "graph.h"
#include "inline_worker.h"
#include "module_builder.h"
#include "tests/datapath/datapath_test.h"
#include "tests/datapath/heap_calls.h"
#include "tests/support/packet_factory.h"
#include "tests/support/random_traffic.h"

namespace openflow_test {
namespace {

constexpr gate_idx_t kGates = 8;
constexpr int kBatches = 16;

using GateCounts = std::array<size_t, kGates>;

// Counts packets by input gate and frees them. The bench's own sink, which
// keeps them, allocates.
class Outlet final : public Module {
 public:
  Outlet() { max_allowed_workers_ = Worker::kMaxWorkers; }

  void ProcessBatch(Context* ctx, bess::PacketBatch* batch) override {
    counts_.at(ctx->current_igate) += static_cast<size_t>(batch->cnt());
    bess::Packet::Free(batch);
  }

  GateCounts takeCounts() { return std::exchange(counts_, {}); }

 private:
  GateCounts counts_ = {};
};

[[maybe_unused]] const bool registered = ModuleBuilder::RegisterModuleClass(
    [] { return new Outlet; }, "Outlet", "outlet", "counts packets", kGates, 0,
    {}, MODULE_INIT_FUNC(&Outlet::Init));

class Allocation : public ::testing::Test {
 protected:
  Allocation() {
    outlet_ =
        static_cast<Outlet*>(bess::CreateModule("Outlet", "outlet").module);
    for (gate_idx_t gate = 0; gate < kGates; gate++) {
      bess::ConnectModules(harness_.hostModule().name(), gate, "outlet", gate);
    }
  }
  ~Allocation() override { bess::DestroyModule("outlet"); }

  void update(const quil::pb::OpenFlowUpdateFlowsArg& arg) {
    ASSERT_EQ(harness_.updateFlows(arg).error().code(), 0);
    ASSERT_EQ(twin_.updateFlows(arg), 0);
  }

  void add(uint32_t tableId, const std::vector<Flow>& flows,
           Family family = Family::kIpv4) {
    quil::pb::OpenFlowUpdateFlowsArg arg;
    arg.set_tableid(tableId);
    arg.set_flowtype(static_cast<quil::pb::OpenFlowType>(family));
    for (const Flow& flow : flows) *arg.add_adds() = flow.message();
    update(arg);
  }

  // Batches of these packets do what the twin makes of one of them. The first
  // is the bench's: it also sees to the worker's counters.
  void expectNoHeapCalls(const std::vector<InputPacket>& packets) {
    const RunResult expected = twin_.run(packets);
    const RunResult first = harness_.run(packets);
    EXPECT_EQ(first.drops, expected.drops);
    EXPECT_EQ(first.tables, expected.tables);
    EXPECT_EQ(first.flowCounters, expected.flowCounters);
    EXPECT_EQ(first.leakedPackets, 0);
    outlet_->takeCounts();

    GateCounts counts = {};
    for (const auto& [gate, out] : expected.gates) {
      counts.at(gate) = out.size();
    }
    for (int i = 0; i < kBatches; i++) {
      ASSERT_EQ(heapCallsOfABatch(packets, kBuffers), HeapCalls{});
      ASSERT_EQ(outlet_->takeCounts(), counts);
    }
  }

  // Of one batch, with at most `left` buffers for copies.
  HeapCalls heapCallsOfABatch(const std::vector<InputPacket>& packets,
                              size_t left) {
    Task task(&harness_.hostModule(), nullptr);
    bess::InlineWorker worker(0);
    bess::PacketBatch batch;
    batch.clear();
    for (const InputPacket& packet : packets) batch.add(factory_.make(packet));
    factory_.drain(left);
    bess::IGate* gate = harness_.hostModule().igates()[0];
    const HeapCalls calls =
        heapCallsOf([&] { worker.Run(&task, gate, &batch); });
    factory_.refill();
    EXPECT_EQ(factory_.free(), kBuffers);
    return calls;
  }

  static constexpr size_t kBuffers = 4095;

  ModuleHarness harness_{HarnessOptions{.gates = {}}};
  ReferenceModule twin_;
  PacketFactory factory_{kBuffers};
  Outlet* outlet_ = nullptr;
};

Flow any() { return Flow(1, 10).counters(kPackets, kByteCount); }

std::vector<InputPacket> batchOf(const InputPacket& packet) {
  return std::vector<InputPacket>(kMaxBatch, packet);
}

InputPacket from(uint32_t port, const Frame& frame = tcpFrame()) {
  return {frame, MetadataBlock{}.withInPort(port)};
}

// As many of each as there is room for.
std::vector<InputPacket> batchOfAll(const std::vector<InputPacket>& packets) {
  std::vector<InputPacket> batch;
  while (batch.size() + packets.size() <= kMaxBatch) {
    batch.insert(batch.end(), packets.begin(), packets.end());
  }
  return batch;
}

template <class T>
void keep(T* value) {
  asm volatile("" : : "r"(value) : "memory");
}

// Otherwise nothing here means anything.
TEST(AllocationCounts, CountEveryCall) {
  const auto ordinary = [](const std::function<void()>& work) {
    const HeapCalls calls = heapCallsOf(work);
    EXPECT_EQ(calls.dpdk, 0);
    return calls.ordinary;
  };
  void* block = nullptr;
  EXPECT_EQ(ordinary([] {}), 0);
  EXPECT_GT(ordinary([&] { keep(block = std::malloc(10)); }), 0);
  EXPECT_GT(ordinary([&] { keep(block = std::realloc(block, 100000)); }), 0);
  EXPECT_GT(ordinary([&] { std::free(block); }), 0);
  EXPECT_GT(ordinary([&] { keep(block = std::calloc(10, 10)); }), 0);
  std::free(block);
#ifndef HEAP_OF_THREAD_SANITIZER  // it does not tell of these
  EXPECT_GT(ordinary([&] { keep(block = std::aligned_alloc(64, 64)); }), 0);
  std::free(block);
  EXPECT_GT(ordinary([&] { posix_memalign(&block, 64, 64); }), 0);
  std::free(block);
#endif
  EXPECT_GT(ordinary([&] { keep(block = ::operator new(10)); }), 0);
  EXPECT_GT(ordinary([&] { ::operator delete(block); }), 0);
  EXPECT_GT(ordinary([] {
              std::vector<int> numbers(kMaxBatch);
              keep(numbers.data());
            }),
            0);
}

TEST(AllocationCounts, CountEveryCallOfDpdksHeap) {
  ModuleHarness::startEal();
  const auto dpdk = [](const std::function<void*()>& take) {
    void* block = nullptr;
    EXPECT_GT(heapCallsOf([&] { block = take(); }).dpdk, 0);
    EXPECT_NE(block, nullptr);
    EXPECT_GT(heapCallsOf([&] { rte_free(block); }).dpdk, 0);
  };
  dpdk([] { return rte_malloc("test", 10, 0); });
  dpdk([] { return rte_zmalloc("test", 10, 0); });
  dpdk([] { return rte_calloc("test", 10, 10, 0); });
  dpdk([] { return rte_realloc(nullptr, 10, 0); });
  dpdk([] { return rte_malloc_socket("test", 10, 0, SOCKET_ID_ANY); });
  dpdk([] { return rte_zmalloc_socket("test", 10, 0, SOCKET_ID_ANY); });
  dpdk([] { return rte_calloc_socket("test", 10, 10, 0, SOCKET_ID_ANY); });
  dpdk([] { return rte_realloc_socket(nullptr, 10, 0, SOCKET_ID_ANY); });
}

TEST_F(Allocation, OutputToOneGate) {
  add(0, {any().output({1})});
  expectNoHeapCalls(batchOf(tcpFrame()));
}

TEST_F(Allocation, FloodToSeveralGates) {
  add(0, {any().flood({0, 1, 2, 3, 4, 5, 6, 7})});
  expectNoHeapCalls(batchOf(from(3)));
}

TEST_F(Allocation, EveryOutputAtOnce) {
  add(0,
      {any().outputAll({1, 2, 3}).outputInPort().controller(1).gotoTable(1)});
  add(1, {any().output({4, 5, 9, 8191})});  // the last two lead nowhere
  expectNoHeapCalls(batchOf(from(2)));
}

TEST_F(Allocation, ChainOfTables) {
  for (uint32_t table = 0; table < kFlowTables - 1; table++) {
    add(table, {any().decTtl().gotoTable(table + 1)});
  }
  add(kFlowTables - 1, {any().output({6})});
  expectNoHeapCalls(batchOf(tcpFrame()));
}

TEST_F(Allocation, AddressTranslation) {
  const auto translate = [] {
    return any()
        .setEthSrc({2, 0, 0, 0, 0, 1})
        .setEthDst({2, 0, 0, 0, 0, 2})
        .setIpv4Src(ip4("192.0.2.1"))
        .setIpv4Dst(ip4("192.0.2.2"))
        .setL4SrcPort(4000)
        .setL4DstPort(53)
        .setIpTos(0x2e)
        .decTtl()
        .output({2});
  };
  add(0, {translate()});
  const auto ipv4 = [] { return Frame::eth().ipv4(kIpA, kIpB); };
  expectNoHeapCalls(
      batchOfAll({tcpFrame(), ipv4().udp(7, 8), ipv4().icmp(8, 0),
                  ipv4().options(15).tcp(7, 80), ipv4().fragment(10, true),
                  Frame::eth().ipv6(kIp6A, kIp6B).udp(7, 8), tcpFrame().cut(20),
                  Frame::eth().vlan(5).arp(kIpA, kIpB)}));
}

TEST_F(Allocation, TagsArePushedRewrittenAndPopped) {
  add(0, {Flow(1, 20).vlanVid(7).popVlan().output({1}),
          Flow(2, 10).setVlanVid(100).setVlanPcp(3).output({2})});
  InputPacket withoutRoom(tcpFrame());
  withoutRoom.headroom = 0;
  InputPacket inPieces(tcpFrame().payload(100));
  inPieces.segments = {10, 50, 94};
  expectNoHeapCalls(
      batchOfAll({tcpFrame(), tcpFrame().vlan(7), tcpFrame().vlan(5),
                  tcpFrame().qinq(5), withoutRoom, inPieces}));
}

TEST_F(Allocation, TableMisses) {
  add(0, {any().ipProto(17).output({1})});
  expectNoHeapCalls(batchOf(tcpFrame()));
}

TEST_F(Allocation, Drops) {
  add(0, {Flow(1, 20).l4DstPort(80).drop(), Flow(2, 10)});
  expectNoHeapCalls(
      batchOfAll({tcpFrame(), Frame::eth().ipv4(kIpA, kIpB).tcp(7, 81)}));
}

TEST_F(Allocation, TableWithoutClassifier) {
  add(0, {any().output({1}).gotoTable(9)});
  expectNoHeapCalls(batchOf(tcpFrame()));
}

TEST_F(Allocation, OutputToTheController) {
  add(0, {Flow(1, 20).l4DstPort(80).trap(7), Flow(2, 10).controller(9)});
  InputPacket withoutRoom = from(4);
  withoutRoom.headroom = 0;
  expectNoHeapCalls(
      batchOfAll({from(3), withoutRoom,
                  from(5, Frame::eth().ipv6(kIp6A, kIp6B).udp(7, 8))}));
}

TEST_F(Allocation, BothClassifiers) {
  add(0, {Flow(1, 10).ethType(0x0800).output({1})});
  add(0, {Flow(1, 20).ethType(0x86dd).output({2}), Flow(2, 5).output({3})},
      Family::kIpv6);
  expectNoHeapCalls(
      batchOfAll({tcpFrame(), Frame::eth().ipv6(kIp6A, kIp6B).tcp(7, 80),
                  Frame::eth().arp(kIpA, kIpB)}));
}

TEST_F(Allocation, OnlyTheClassifierOfIpv6) {
  add(0, {any().ethType(0x86dd).output({2})}, Family::kIpv6);
  expectNoHeapCalls(
      batchOfAll({tcpFrame(), Frame::eth().ipv6(kIp6A, kIp6B).tcp(7, 80)}));
}

TEST_F(Allocation, PacketsThatStartAtOtherTables) {
  std::vector<InputPacket> packets;
  for (uint32_t table = 0; table < kFlowTables; table++) {
    add(table, {any().output({table % kGates})});
    packets.emplace_back(tcpFrame(),
                         MetadataBlock{}.withStartTable(
                             static_cast<uint16_t>(table == 20 ? 40 : table)));
  }
  expectNoHeapCalls(packets);
}

// Whose matches are asked for before they are read.
TEST_F(Allocation, ATableOfThousandsOfFlows) {
  std::vector<Flow> flows;
  for (uint32_t i = 1; i <= 5000; i++) {
    flows.push_back(Flow(i, 10)
                        .counters(i % 1024, 7)
                        .ethType(0x0800)
                        .ipv4Dst(i)
                        .output({i % kGates}));
  }
  add(0, flows);
  std::vector<InputPacket> packets;
  for (uint32_t i = 0; i < kMaxBatch; i++) {
    packets.emplace_back(Frame::eth().ipv4(kIpA, 1 + i * 160).tcp(7, 80));
  }
  expectNoHeapCalls(packets);
}

TEST_F(Allocation, WithoutBuffersForCopies) {
  add(0, {any().output({1, 2}).trap(7).gotoTable(1)});
  add(1, {any().output({3})});
  for (size_t left = 0; left <= 5; left++) {
    SCOPED_TRACE(left);
    EXPECT_EQ(heapCallsOfABatch({from(3)}, left), HeapCalls{});
    // The fourth copy is what goes on to table 1.
    GateCounts expected = {};
    expected[1] = left >= 1;
    expected[2] = left >= 2;
    expected[0] = left >= 3;
    expected[3] = left >= 5;
    EXPECT_EQ(outlet_->takeCounts(), expected);
  }
}

class RandomAllocation : public Allocation,
                         public ::testing::WithParamInterface<uint64_t> {};

TEST_P(RandomAllocation, AnyTraffic) {
  constexpr uint32_t kTables = 6;
  Random random(GetParam());
  for (uint32_t table = 0; table < kTables; table++) {
    for (const Family family : {Family::kIpv4, Family::kIpv6}) {
      RandomFlowOptions options;
      options.tableId = table;
      options.family = family;
      update(randomUpdate(&random, 8, options));
    }
  }
  RandomPacketOptions options;
  options.startTables = kTables;
  options.segments = true;
  for (int batch = 0; batch < 20 && !HasFailure(); batch++) {
    expectNoHeapCalls(randomBatch(&random, options));
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomAllocation,
                         ::testing::Range<uint64_t>(1, 9));

}  // namespace
}  // namespace openflow_test
