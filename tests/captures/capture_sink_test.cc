// SPDX-License-Identifier: BSD-3-Clause
//
// Packets that come to a capture in another order, too late, or when the disk
// is full.
#include "modules/capture_sink.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>

#include "graph.h"
#include "inline_worker.h"
#include "modules/capture_source.h"
#include "packet_pool.h"
#include "tests/captures/capture_files.h"

namespace openflow_test {
namespace {

// Sends those of a batch first that stand behind the others, each by itself.
class Reverser final : public Module {
 public:
  void ProcessBatch(Context* ctx, bess::PacketBatch* batch) override {
    for (int i = batch->cnt() - 1; i >= 0; i--) {
      EmitPacket(ctx, batch->pkts()[i], static_cast<gate_idx_t>(i));
    }
  }
};

class CaptureSinkTest : public testing::Test {
 protected:
  CaptureSinkTest() {
    for (uint64_t i = 0; i < 80; i++) {
      // Times that go backwards: a capture may have such.
      rows_.push_back({1000 - i, std::string(60, static_cast<char>(i)), 0});
    }
    writeFile(dir_ / "in", captureBytes(rows_));
  }
  ~CaptureSinkTest() override {
    EXPECT_EQ(bess::DestroyAllModules().error().code(), 0);
  }

  template <class M>
  static M* make(const std::string& className,
                 const google::protobuf::Message& arg) {
    google::protobuf::Any any;
    any.PackFrom(arg);
    return static_cast<M*>(bess::CreateModule(className, "", any).module);
  }

  CaptureSource* source() {
    bess::pb::CaptureSourceArg arg;
    arg.add_inputs()->set_path(dir_ / "in");
    return make<CaptureSource>("CaptureSource", arg);
  }

  CaptureSink* sink(bool manyWorkers) {
    bess::pb::CaptureSinkArg arg;
    arg.set_path(dir_ / "out");
    arg.set_many_workers(manyWorkers);
    return make<CaptureSink>("CaptureSink", arg);
  }

  static void connect(const Module* from, gate_idx_t gate, const Module* to) {
    EXPECT_EQ(
        bess::ConnectModules(from->name(), gate, to->name(), 0).error().code(),
        0);
  }

  ScratchDir dir_;
  std::vector<CaptureRow> rows_;
  bess::InlineWorker worker_{0};
};

TEST_F(CaptureSinkTest, WritesABurstInTheOrderInWhichItCame) {
  ASSERT_TRUE(ModuleBuilder::RegisterModuleClass(
      [] { return new Reverser; }, "Reverser", "reverser", "", 1, 32, {},
      MODULE_INIT_FUNC(&Module::Init)));
  for (const bool manyWorkers : {false, true}) {
    CaptureSource* from = source();
    auto* reverser = make<Reverser>("Reverser", bess::pb::EmptyArg());
    CaptureSink* to = sink(manyWorkers);
    connect(from, 0, reverser);
    for (gate_idx_t gate = 0; gate < 32; gate++) connect(reverser, gate, to);
    while (!from->done()) worker_.Run(from->tasks().front().get());
    EXPECT_EQ(to->Finish(), "");
    EXPECT_EQ(readCapture(dir_ / "out"), rows_) << manyWorkers;
    EXPECT_EQ(bess::DestroyAllModules().error().code(), 0);
  }
  EXPECT_TRUE(ModuleBuilder::DeregisterModuleClass("Reverser"));
}

TEST_F(CaptureSinkTest, OnlyCountsWhatComesOnceItIsFinished) {
  CaptureSource* from = source();
  CaptureSink* to = sink(false);
  connect(from, 0, to);
  worker_.Run(from->tasks().front().get());
  EXPECT_EQ(to->Finish(), "");
  const std::string whole = readFile(dir_ / "out");
  while (!from->done()) worker_.Run(from->tasks().front().get());
  EXPECT_EQ(to->packets(), 80u);
  EXPECT_EQ(to->bytes(), 80u * 60);
  EXPECT_EQ(to->Finish(), "");
  EXPECT_FALSE(std::filesystem::exists(CaptureSink::PartOf(dir_ / "out")));
  EXPECT_EQ(readFile(dir_ / "out"), whole);
  EXPECT_EQ(readCapture(dir_ / "out").size(), 32u);
}

// Where the disk is full there may be whole records, and nothing behind them.
TEST_F(CaptureSinkTest, TellsWhenAWorkersPartCannotBeKept) {
  constexpr rlim_t kTenRecords = 10 * (8 + 8 + 4 + 4 + 60);
  CaptureSource* from = source();
  CaptureSink* to = sink(true);
  connect(from, 0, to);
  rlimit before = {};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  auto* const handler = signal(SIGXFSZ, SIG_IGN);
  worker_.Run(from->tasks().front().get());
  const rlimit little = {kTenRecords, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &little), 0);
  const std::string error = to->Finish();
  setrlimit(RLIMIT_FSIZE, &before);
  signal(SIGXFSZ, handler);
  EXPECT_EQ(error, (dir_ / "out").string() + ": File too large");
  EXPECT_FALSE(std::filesystem::exists(dir_ / "out"));
  EXPECT_FALSE(std::filesystem::exists(CaptureSink::PartOf(dir_ / "out")));
}

}  // namespace
}  // namespace openflow_test
