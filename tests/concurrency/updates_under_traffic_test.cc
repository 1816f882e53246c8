// SPDX-License-Identifier: BSD-3-Clause
//
// Workers at full speed through three tables, while commands replace and delete
// flow sets of both families, bind tables to other slots and read statistics.
// Each batch is judged (batch_judge.h). In the end nothing is lost: no packet,
// no buffer, no retired classifier, and of DPDK's heap exactly the one block
// that every publication leaves behind.
//
// CONCURRENCY_UPDATES in the environment says how many updates a run makes.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <rte_malloc.h>
#include <rte_tailq.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <ostream>
#include <thread>
#include <vector>

#include "control.h"
#include "graph.h"
#include "inline_worker.h"
#include "modules/openflow/openflow.h"
#include "platform/quil_modules/counter_db.h"
#include "tests/concurrency/traffic.h"
#include "tests/support/module_harness.h"
#include "worker.h"

namespace openflow_test {
namespace {

constexpr size_t kSides = 2;  // slots that a table and family moves between

int numUpdates() {
  const char* wanted = std::getenv("CONCURRENCY_UPDATES");
  return wanted != nullptr ? std::atoi(wanted) : 2000;
}

// Classifiers that exist in this process.
size_t numClassifiers() {
  ModuleHarness::waitForReleases();
  const rte_tailq_head* list = rte_eal_tailq_lookup("RTE_ACL");
  size_t count = 0;
  const rte_tailq_entry* entry;
  TAILQ_FOREACH(entry, &list->tailq_head, next) { count++; }
  return count;
}

// Blocks in DPDK's heap.
size_t numHeapBlocks() {
  ModuleHarness::waitForReleases();
  rte_malloc_socket_stats stats;
  rte_malloc_get_socket_stats(0, &stats);
  return stats.alloc_count;
}

// The thread that runs a source's task: a worker of the host, or a thread of
// the test's own that does a worker's work.
enum class Runner { kHostWorker, kOwnThread };

struct Row {
  const char* name;
  int workers;
  Runner runner;
};
void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }

class UpdatesUnderTraffic : public testing::TestWithParam<Row> {
 protected:
  UpdatesUnderTraffic();
  ~UpdatesUnderTraffic() override;

  void startWorkers();
  void stopWorkers();

  // Commands that must succeed, with what workers may see of them noted.
  void replace(size_t step, size_t family);
  void remove(size_t step, size_t family);
  void bind(size_t step, size_t side4, size_t side6);
  void checkStats(size_t step);
  void anyCommand();

  quil::pb::OpenFlowGetStatsRespArg stats(size_t step);
  bess::pb::CommandResponse command(const char* name,
                                    const google::protobuf::Message& arg);

  bool failed() const;
  void checkAccounts();
  void emptyAllSlots();

  struct TableState {
    std::array<FlowSet, kFamilies> sets;
    std::array<std::unique_ptr<History>, kFamilies> histories;
    std::array<size_t, kFamilies> side{};
    // What each slot publishes.
    std::array<std::array<uint32_t, kSides>, kFamilies> versions{};
  };
  static uint32_t slotOf(size_t step, size_t family, size_t side) {
    return static_cast<uint32_t>((step * kFamilies + family) * kSides + side);
  }
  void update(size_t step, size_t family, uint32_t version,
              const quil::pb::OpenFlowUpdateFlowsArg& arg);

  const int updates_ = numUpdates();
  Random random_{static_cast<uint64_t>(GetParam().workers)};
  std::unique_ptr<bess::PacketPool> pool_;
  Module* module_ = nullptr;
  std::array<TableState, kSteps> tables_;
  Histories histories_;
  std::vector<std::unique_ptr<BatchJudge>> judges_;
  std::vector<BatchSource*> sources_;
  std::vector<std::thread> threads_;
  std::atomic<bool> stop_ = false;

  uint32_t version_ = 0;  // the last one made
  int made_ = 0;          // updates
  int rebinds_ = 0;
  int publications_ = 0;  // of classifiers
  size_t classifiersBefore_ = 0;
};

UpdatesUnderTraffic::UpdatesUnderTraffic()
    : tables_{{{{FlowSet(0, 0), FlowSet(0, 1)}, {}, {}, {}},
               {{FlowSet(1, 0), FlowSet(1, 1)}, {}, {}, {}},
               {{FlowSet(2, 0), FlowSet(2, 1)}, {}, {}, {}}}} {
  ModuleHarness::startEal();
  pool_ = std::make_unique<bess::PacketPool>(8191);
  classifiersBefore_ = numClassifiers();
  module_ = bess::CreateModule("OpenFlow", "openflow").module;
  auto* sink =
      static_cast<BatchSink*>(bess::CreateModule("BatchSink", "sink").module);
  for (gate_idx_t gate = 1; gate < kNumGates; gate++) {
    bess::ConnectModules("openflow", gate, "sink", gate);
  }
  for (size_t step = 0; step < kSteps; step++) {
    for (size_t f = 0; f < kFamilies; f++) {
      // Updates, rebinds, and what comes before and after them.
      auto& history = tables_[step].histories[f];
      history = std::make_unique<History>(2 * size_t(updates_) + 100);
      histories_[step][f] = history.get();
    }
    bind(step, 0, 0);
  }
  for (int wid = 0; wid < GetParam().workers; wid++) {
    const std::string name = fmt::format("source{}", wid);
    auto* source = static_cast<BatchSource*>(
        bess::CreateModule("BatchSource", name).module);
    bess::ConnectModules(name, 0, "openflow", 0);
    judges_.push_back(std::make_unique<BatchJudge>(wid, module_, histories_));
    source->use(pool_.get(), judges_.back().get());
    sink->use(wid, judges_.back().get());
    sources_.push_back(source);
    bess::ControlThread::Instance().Run(
        [wid] { QuilModules::bessCounterDb.create(wid, kNumCounters); });
  }
}

UpdatesUnderTraffic::~UpdatesUnderTraffic() {
  stopWorkers();
  bess::DestroyAllModules();
  bess::ControlThread::Instance().Run([] {
    for (int wid = 0; wid < GetParam().workers; wid++) {
      QuilModules::bessCounterDb.destroy(wid);
    }
  });
  EXPECT_EQ(numClassifiers(), classifiersBefore_);
  EXPECT_EQ(pool_->available(), pool_->capacity());
}

void UpdatesUnderTraffic::startWorkers() {
  for (int wid = 0; wid < GetParam().workers; wid++) {
    BatchSource* source = sources_[static_cast<size_t>(wid)];
    if (GetParam().runner == Runner::kHostWorker) {
      ASSERT_EQ(Worker::Add(wid), "");
      ASSERT_EQ(Worker::AttachTasks(source, wid), "");
    } else {
      threads_.emplace_back([this, source, wid] {
        bess::InlineWorker worker(wid);
        while (!stop_) worker.Run(source->tasks()[0].get());
      });
    }
  }
  ASSERT_EQ(Worker::ResumeAll(), "");
}

void UpdatesUnderTraffic::stopWorkers() {
  stop_ = true;
  Worker::StopAll();
  for (std::thread& thread : threads_) thread.join();
  threads_.clear();
  for (const auto& judge : judges_) judge->end();
}

bess::pb::CommandResponse UpdatesUnderTraffic::command(
    const char* name, const google::protobuf::Message& arg) {
  google::protobuf::Any any;
  any.PackFrom(arg);
  const auto response = bess::RunModuleCommand("openflow", name, any);
  EXPECT_EQ(response.error().code(), 0) << response.error().errmsg();
  return response;
}

void UpdatesUnderTraffic::update(size_t step, size_t family, uint32_t version,
                                 const quil::pb::OpenFlowUpdateFlowsArg& arg) {
  TableState& table = tables_[step];
  table.versions[family][table.side[family]] = version;
  table.histories[family]->begin(version);
  command("updateFlows", arg);
  table.histories[family]->end();
  made_++;
  publications_ += version != 0 ? 1 : 0;
}

void UpdatesUnderTraffic::replace(size_t step, size_t family) {
  const uint32_t version = ++version_;
  update(step, family, version,
         tables_[step].sets[family].replaceBy(version, &random_));
}

void UpdatesUnderTraffic::remove(size_t step, size_t family) {
  update(step, family, 0, tables_[step].sets[family].remove());
}

void UpdatesUnderTraffic::bind(size_t step, size_t side4, size_t side6) {
  TableState& table = tables_[step];
  table.side = {side4, side6};
  quil::pb::OpenFlowAclArg arg;
  arg.set_tableid(kChain[step]);
  arg.set_aclid(slotOf(step, 0, side4));
  arg.set_ipv6aclid(slotOf(step, 1, side6));
  for (size_t f = 0; f < kFamilies; f++) {
    table.histories[f]->begin(table.versions[f][table.side[f]]);
  }
  command("setAclIds", arg);
  for (size_t f = 0; f < kFamilies; f++) table.histories[f]->end();
  rebinds_++;
}

quil::pb::OpenFlowGetStatsRespArg UpdatesUnderTraffic::stats(size_t step) {
  quil::pb::OpenFlowGetStatsArg arg;
  arg.set_tableid(kChain[step]);
  quil::pb::OpenFlowGetStatsRespArg stats;
  command("getStats", arg).data().UnpackTo(&stats);
  return stats;
}

void UpdatesUnderTraffic::checkStats(size_t step) {
  const auto now = stats(step);
  EXPECT_EQ(now.numflows(), tables_[step].sets[0].numFlows());
  EXPECT_EQ(now.numipv6flows(), tables_[step].sets[1].numFlows());
  EXPECT_EQ(now.updatefailures(), 0u);
}

void UpdatesUnderTraffic::anyCommand() {
  const size_t step = random_.below(kSteps);
  const size_t family = random_.below(kFamilies);
  if (random_.oneIn(10)) {
    bind(step, random_.below(kSides), random_.below(kSides));
  }
  if (random_.oneIn(10)) checkStats(step);
  // Tables further down see packets only when those above have flows.
  random_.oneIn(16) ? remove(step, family) : replace(step, family);
}

bool UpdatesUnderTraffic::failed() const { return HasFailure(); }

// Packets in = copies out + named drops, by table; and all of it counted.
void UpdatesUnderTraffic::checkAccounts() {
  const bool alone = GetParam().workers == 1;
  std::array<uint64_t, kFamilies> entered{};
  for (const auto& judge : judges_) {
    for (uint64_t& packets : entered) packets += judge->batches() * kPerFamily;
  }
  uint64_t bytesCounted = 0;
  uint64_t bytesSeen = 0;
  for (size_t step = 0; step < kSteps; step++) {
    uint64_t missed = 0;
    uint64_t freedBatches = 0;
    std::array<uint64_t, kFamilies> copies{};
    for (const auto& judge : judges_) {
      missed += judge->missed(step);
      freedBatches += judge->freedBatches(step);
      for (size_t f = 0; f < kFamilies; f++)
        copies[f] += judge->copies(step, f);
    }
    const uint64_t left = entered[0] + entered[1] - copies[0] - copies[1];
    EXPECT_GE(left, missed);
    EXPECT_GE(missed + freedBatches * kBatch, left);
    for (size_t f = 0; f < kFamilies; f++) {
      uint64_t counted = 0;
      for (size_t c = 0; c < kClasses; c++) {
        counted += QuilModules::bessCounterDb.sum(counterOf(step, f, c));
        bytesCounted +=
            QuilModules::bessCounterDb.sum(counterOf(step, f, c) + 1);
      }
      EXPECT_EQ(counted, copies[f]) << "table " << int{kChain[step]};
    }
    // Two workers may lose a count of a table's; one does not.
    const auto now = stats(step);
    EXPECT_LE(now.tablemisses(), missed);
    EXPECT_LE(now.noclassifier(), freedBatches);
    EXPECT_LE(now.batchdrops(), freedBatches);
    if (alone) {
      EXPECT_EQ(now.tablemisses(), missed);
      EXPECT_EQ(now.noclassifier(), freedBatches);
      EXPECT_EQ(now.batchdrops(), freedBatches);
    }
    EXPECT_EQ(now.noaclctx() + now.classifyerrors() + now.dropactions() +
                  now.nooutputdrops(),
              0u);
    entered = copies;
  }
  for (const auto& judge : judges_) bytesSeen += judge->bytes();
  EXPECT_EQ(bytesCounted, bytesSeen);
}

void UpdatesUnderTraffic::emptyAllSlots() {
  for (size_t step = 0; step < kSteps; step++) {
    for (size_t side = 0; side < kSides; side++) {
      bind(step, side, side);
      for (size_t f = 0; f < kFamilies; f++) remove(step, f);
    }
  }
}

TEST_P(UpdatesUnderTraffic, EveryPacketObeysOneSetAndNothingIsLost) {
  const size_t blocksBefore = numHeapBlocks();
  startWorkers();
  const auto start = std::chrono::steady_clock::now();
  while (made_ < updates_ && !failed()) anyCommand();
  const std::chrono::duration<double> time =
      std::chrono::steady_clock::now() - start;
  stopWorkers();

  uint64_t batches = 0;
  uint64_t overlaps = 0;
  for (const auto& judge : judges_) {
    EXPECT_EQ(judge->error(), "");
    EXPECT_GT(judge->batches(), 0u);
    batches += judge->batches();
    overlaps += judge->overlaps();
  }
  checkAccounts();
  fmt::print(
      "{} updates and {} bindings in {:.1f} s under {} batches; {} "
      "times a set changed during a batch\n",
      made_, rebinds_, time.count(), batches, overlaps);
  EXPECT_GT(overlaps, 0u);

  emptyAllSlots();
  EXPECT_EQ(numClassifiers(), classifiersBefore_);
  EXPECT_EQ(numHeapBlocks(), blocksBefore + size_t(publications_))
      << "the last flow's block of every publication stays, nothing else does";
}

INSTANTIATE_TEST_SUITE_P(
    Workers, UpdatesUnderTraffic,
    testing::Values(Row{"OneHostWorker", 1, Runner::kHostWorker},
                    Row{"ThreeHostWorkers", 3, Runner::kHostWorker},
                    Row{"TwoOwnThreads", 2, Runner::kOwnThread}),
    [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace openflow_test
