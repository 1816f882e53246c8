// SPDX-License-Identifier: BSD-3-Clause
//
// A flow set whose classifier takes gigabytes to build meets the limit of
// builds while packets are on their way.
#include <gmock/gmock.h>
#include <malloc.h>
#include <rte_lcore.h>
#include <rte_malloc.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <random>
#include <thread>
#include <vector>

#include "modules/openflow/flow_table.h"
#include "tests/datapath/datapath_test.h"
#include "tests/support/kept_for_good.h"
#include "tests/support/traces.h"
#include "utils/acl_build_memory.h"

namespace openflow_test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kMb = size_t{1} << 20;
constexpr int kWorker = 8;

// Sanitizers keep freed memory, or notes about it, for a while.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kFreedMemoryIsGone = false;
#else
constexpr bool kFreedMemoryIsGone = true;
#endif

// Resident memory of this process, without what the allocator merely keeps.
size_t residentBytes() {
  malloc_trim(0);
  std::ifstream statm("/proc/self/statm");
  size_t total = 0;
  size_t resident = 0;
  statm >> total >> resident;
  return resident * 4096;
}

// Builds on the command thread may take `bytes` while it lives.
class Limit {
 public:
  explicit Limit(size_t bytes) : before_(Dpdk::aclBuildLimit()) {
    Dpdk::setAclBuildLimit(bytes);
  }
  ~Limit() { Dpdk::setAclBuildLimit(before_); }

 private:
  const size_t before_;
};

class BuildMemory : public DataPath {
 protected:
  // Sends an update whose build must fail.
  bess::pb::CommandResponse failing(
      const quil::pb::OpenFlowUpdateFlowsArg& arg) {
    const KeptForGood records;
    return harness().updateFlows(arg);
  }
};

// How the five-tuples of a flow set name where packets come from.
enum class Sources { kAddresses, kEveryOtherOpen };

// In one table: the five-tuples leave the MAC open, so that packets of every
// known MAC may match them, and the trie has them all below each MAC, with
// twelve nodes for each. Those of any source lie below each source, too.
quil::pb::OpenFlowUpdateFlowsArg macsAndFiveTuples(
    int numMacs, int numFiveTuples, Sources sources = Sources::kAddresses) {
  std::mt19937 random(1);
  quil::pb::OpenFlowUpdateFlowsArg arg;
  uint32_t id = 100;
  for (int i = 0; i < numMacs; i++) {
    Mac mac = {2, 0, 0, 0, 0, 0};
    for (size_t byte = 2; byte < 6; byte++) {
      mac[byte] = static_cast<uint8_t>(random());
    }
    *arg.add_adds() = Flow(++id, 1000).ethDst(mac).output({3}).message();
  }
  for (int i = 0; i < numFiveTuples; i++) {
    Flow flow(++id, 2000 + static_cast<uint32_t>(random() % 1000));
    if (sources == Sources::kAddresses || i % 2 == 1) {
      flow.ipv4Src(static_cast<uint32_t>(random()));
    }
    flow.ethType(0x0800)
        .ipProto(6)
        .ipv4Dst(static_cast<uint32_t>(random()))
        .l4SrcPort(random() & 0xffff)
        .l4DstPort(random() & 0xffff)
        .output({4});
    *arg.add_adds() = flow.message();
  }
  return arg;
}

// A worker whose packets all leave on port 1, batch after batch, until the end.
class Traffic {
 public:
  explicit Traffic(ModuleHarness* harness)
      : thread_([this, harness] {
          const std::vector<InputPacket> packets(kMaxBatch, tcpFrame());
          while (!stop_) {
            const RunResult result = harness->run(packets, kWorker);
            ASSERT_EQ(result.gate(1).size(), kMaxBatch) << result;
            ASSERT_EQ(result.numEmitted(), kMaxBatch);
            ASSERT_EQ(result.leakedPackets, 0);
            batches_++;
          }
        }) {}
  ~Traffic() {
    stop_ = true;
    thread_.join();
  }

  uint64_t batches() const { return batches_; }
  void awaitBatch() const {
    const uint64_t before = batches_;
    while (batches_ == before && !testing::Test::HasFailure()) {
      std::this_thread::yield();
    }
  }

 private:
  std::atomic<bool> stop_ = false;
  std::atomic<uint64_t> batches_ = 0;
  std::thread thread_;
};

quil::pb::OpenFlowUpdateFlowsArg removalOf(
    const quil::pb::OpenFlowUpdateFlowsArg& added) {
  quil::pb::OpenFlowUpdateFlowsArg arg;
  for (const quil::pb::OpenFlowAddFlow& flow : added.adds()) {
    arg.add_deletes()->set_flowid(flow.flowid());
  }
  return arg;
}

TEST_F(BuildMemory, ALimitIsInForce) {
  EXPECT_TRUE(Dpdk::aclBuildsAreLimited());
  add(0, {Flow(1, 10).output({1})});
  const Dpdk::AclBuildMemory memory = Dpdk::lastAclBuild();
  EXPECT_FALSE(memory.refused);
  EXPECT_GE(memory.peak, 8 * kMb) << "the library's smallest block";
  EXPECT_LT(memory.peak, 16 * kMb);
  EXPECT_EQ(memory.limit, Dpdk::aclBuildLimit());
}

constexpr int kMacs = 2000;

class ExplosiveSet : public BuildMemory,
                     public testing::WithParamInterface<int> {};

TEST_P(ExplosiveSet, TooBigABuildFailsUnderTraffic) {
  const int numFiveTuples = GetParam();
  const auto numFlows = static_cast<uint32_t>(kMacs + numFiveTuples + 1);
  add(0, {Flow(1, 10).output({1})});
  const auto explosive = macsAndFiveTuples(kMacs, numFiveTuples);
  Traffic traffic(&harness());
  traffic.awaitBatch();
  const size_t before = residentBytes();
  const uint64_t failuresBefore = harness().stats(0).aclbuildfailures();

  unsigned builds = 0;
  uint64_t batchesMeanwhile = 0;
  const auto failCounting = [&](const quil::pb::OpenFlowUpdateFlowsArg& arg) {
    const Limit limit(256 * kMb);
    const uint64_t batchesBefore = traffic.batches();
    const bess::pb::CommandResponse response = failing(arg);
    batchesMeanwhile += traffic.batches() - batchesBefore;
    builds++;
    EXPECT_EQ(response.error().code(), -1);
    EXPECT_EQ(response.error().errmsg(), "Failed to update flows");
  };
  const TraceMark mark;
  failCounting(explosive);
  EXPECT_THAT(
      mark.texts(0),
      testing::ElementsAre(
          "buildAcl A build may take 256 MB, this one needs more",
          "programAcl Failed to build acl for tableId: 0, flowType: 0 "
          "error: -12",
          "processUpdateFlows Failed to program acl rules for tableId: 0, "
          "flowType: 0"));
  // Now, because every failed build keeps the records of its rules.
  if (kFreedMemoryIsGone) {
    EXPECT_LT(residentBytes(), before + 32 * kMb);
  }
  // A busy machine gives the worker little of one build's time.
  const auto deadline = Clock::now() + std::chrono::seconds(60);
  while (batchesMeanwhile <= 100 && Clock::now() < deadline) failCounting({});
  EXPECT_GT(batchesMeanwhile, 100u) << "in " << builds << " builds";
  const Dpdk::AclBuildMemory memory = Dpdk::lastAclBuild();
  EXPECT_TRUE(memory.refused);
  EXPECT_EQ(memory.limit, 256 * kMb);
  EXPECT_LE(memory.peak, 256 * kMb);
  EXPECT_GT(memory.peak, 192 * kMb);
  EXPECT_EQ(harness().stats(0).aclbuildfailures(), failuresBefore + builds);
  EXPECT_EQ(harness().stats(0).numflows(), numFlows) << "the store has changed";
  traffic.awaitBatch();

  // Without the five-tuples it is a harmless set.
  quil::pb::OpenFlowUpdateFlowsArg cure = removalOf(explosive);
  cure.mutable_deletes()->DeleteSubrange(0, kMacs);
  EXPECT_EQ(harness().updateFlows(cure).error().code(), 0);
  EXPECT_FALSE(Dpdk::lastAclBuild().refused);
  EXPECT_EQ(harness().stats(0).numflows(), kMacs + 1u);
  traffic.awaitBatch();
  EXPECT_EQ(harness().updateFlows(removalOf(explosive)).error().code(), 0);
  EXPECT_EQ(harness().stats(0).numflows(), 1u);
}

INSTANTIATE_TEST_SUITE_P(FiveTuples, ExplosiveSet, testing::Values(30, 40, 50),
                         testing::PrintToStringParamName());

// A packet of a five-tuple, from an address of its own where that is open.
Frame packetOf(const quil::pb::OpenFlowAddFlow& flow, const Mac& dst) {
  const quil::pb::OfMatchValues& match = flow.match().values();
  return Frame::eth(dst)
      .ipv4(flow.match().fields().ipv4src() ? match.ipv4src() : kIpA,
            match.ipv4dst())
      .tcp(static_cast<uint16_t>(match.l4srcport()),
           static_cast<uint16_t>(match.l4dstport()));
}

// The five-tuples take more nodes below a MAC than a trie may grow by for one
// flow: the MACs get another trie.
TEST_F(BuildMemory, ASetThatIsSplitBuildsUnderTraffic) {
  add(0, {Flow(1, 10).output({1})});
  const auto split = macsAndFiveTuples(kMacs, 50, Sources::kEveryOtherOpen);
  {
    Traffic traffic(&harness());
    traffic.awaitBatch();
    const Limit limit(256 * kMb);
    update(split);
    traffic.awaitBatch();
  }
  EXPECT_FALSE(Dpdk::lastAclBuild().refused);
  EXPECT_LT(Dpdk::lastAclBuild().peak, 64 * kMb);
  EXPECT_EQ(harness().stats(0).numflows(), kMacs + 51u);

  std::vector<InputPacket> packets;
  Mac known = {};
  for (const int i : {0, 999, 1999}) {
    std::ranges::copy(split.adds(i).match().values().ethdst(), known.begin());
    packets.emplace_back(Frame::eth(known).ipv4(kIpA, kIpB).tcp(7, 80));
  }
  for (const int i : {2000, 2001, 2048, 2049}) {
    packets.emplace_back(packetOf(split.adds(i), kDstMac));
    packets.emplace_back(packetOf(split.adds(i), known));
  }
  packets.emplace_back(tcpFrame());
  const RunResult result = run(packets);
  EXPECT_EQ(result.gate(3).size(), 3u);
  EXPECT_EQ(result.gate(4).size(), 8u);
  EXPECT_EQ(result.gate(1).size(), 1u);
}

// What the module has allocated in DPDK's heap.
size_t heapBytes() {
  ModuleHarness::waitForReleases();
  rte_malloc_socket_stats stats;
  rte_malloc_get_socket_stats(static_cast<int>(rte_socket_id()), &stats);
  return stats.heap_allocsz_bytes;
}

// Fills DPDK's heap but for some holes, as long as it lives.
class HeapOfHoles {
 public:
  HeapOfHoles(int numHoles, size_t holeBytes) {
    std::vector<void*> all;
    while (void* block = rte_malloc("filler", holeBytes, 0)) {
      all.push_back(block);
    }
    // Every other one of the last, so that no two holes touch.
    for (int i = 0; i < numHoles; i++) {
      blocks_.push_back(all.back());
      all.pop_back();
      rte_free(all.back());
      all.pop_back();
    }
    blocks_.insert(blocks_.end(), all.begin(), all.end());
  }
  ~HeapOfHoles() {
    for (void* block : blocks_) rte_free(block);
  }

 private:
  std::vector<void*> blocks_;
};

// The finished classifier comes from DPDK's heap, in one piece.
TEST_F(BuildMemory, AClassifierThatDoesNotFitFails) {
  constexpr size_t kFlows = 1000;
  add(0, {Flow(1, 10).output({1})});
  const auto flows = macsAndFiveTuples(0, kFlows);
  Traffic traffic(&harness());
  traffic.awaitBatch();
  const size_t before = heapBytes();
  {
    // For the rules, not for the classifier.
    const HeapOfHoles full(16, 640 << 10);
    const TraceMark mark;
    EXPECT_EQ(failing(flows).error().code(), -1);
    EXPECT_THAT(mark.texts(0),
                testing::Contains("programAcl Failed to build acl for tableId: "
                                  "0, flowType: 0 error: -12"));
    EXPECT_FALSE(Dpdk::lastAclBuild().refused);
    traffic.awaitBatch();
  }
  // Flows in the store and the records that the failed build keeps, with what
  // the heap needs for each block; not rules nor classifiers.
  const size_t perFlow = sizeof(OpenFlowEntry<of_flow_acl_rule>) +
                         sizeof(OfFlowAction) + 128 + 3 * 128;
  EXPECT_LE(heapBytes(), before + kFlows * perFlow + (64 << 10));

  EXPECT_EQ(harness().updateFlows({}).error().code(), 0);
  EXPECT_EQ(harness().stats(0).numflows(), kFlows + 1);
  traffic.awaitBatch();
  EXPECT_EQ(harness().updateFlows(removalOf(flows)).error().code(), 0);
}

}  // namespace
}  // namespace openflow_test
