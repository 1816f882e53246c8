// SPDX-License-Identifier: BSD-3-Clause
//
// Packets that come to a capture in another order, too late, or when the disk
// is full.
#include "modules/capture_sink.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "graph.h"
#include "inline_worker.h"
#include "modules/capture_source.h"
#include "modules/source.h"
#include "packet_pool.h"
#include "tests/captures/capture_files.h"
#include "tests/captures/make_module.h"

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

// Sends copies of each packet, numbered in their first byte, the last packet's
// first.
class Copier final : public Module {
 public:
  static constexpr char kCopies = 4;

  void ProcessBatch(Context* ctx, bess::PacketBatch* batch) override {
    for (int i = batch->cnt() - 1; i >= 0; i--) {
      for (char copy = 0; copy < kCopies; copy++) {
        bess::Packet* pkt = bess::Packet::copy(batch->pkts()[i]);
        pkt->head_data<char*>()[0] = copy;
        EmitPacket(ctx, pkt);
      }
    }
    bess::Packet::Free(batch);
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

  CaptureSource* source() {
    bess::pb::CaptureSourceArg arg;
    arg.add_inputs()->set_path(dir_ / "in");
    return makeModule<CaptureSource>("CaptureSource", arg);
  }

  CaptureSink* sink(bool manyWorkers) {
    bess::pb::CaptureSinkArg arg;
    arg.set_path(dir_ / "out");
    arg.set_many_workers(manyWorkers);
    return makeModule<CaptureSink>("CaptureSink", arg);
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
    auto* reverser = makeModule<Reverser>("Reverser", bess::pb::EmptyArg());
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

TEST_F(CaptureSinkTest, KeepsCopiesOfAPacketInTheOrderOfTheirMaking) {
  ASSERT_TRUE(ModuleBuilder::RegisterModuleClass(
      [] { return new Copier; }, "Copier", "copier", "", 1, 1, {},
      MODULE_INIT_FUNC(&Module::Init)));
  std::vector<CaptureRow> copies;
  for (const CaptureRow& row : rows_) {
    for (char copy = 0; copy < Copier::kCopies; copy++) {
      copies.push_back(row);
      copies.back().bytes[0] = copy;
    }
  }
  for (const bool manyWorkers : {false, true}) {
    CaptureSource* from = source();
    auto* copier = makeModule<Copier>("Copier", bess::pb::EmptyArg());
    CaptureSink* to = sink(manyWorkers);
    connect(from, 0, copier);
    connect(copier, 0, to);
    while (!from->done()) worker_.Run(from->tasks().front().get());
    EXPECT_EQ(to->Finish(), "");
    EXPECT_EQ(readCapture(dir_ / "out"), copies) << manyWorkers;
    EXPECT_EQ(to->packets(), copies.size());
    EXPECT_EQ(bess::DestroyAllModules().error().code(), 0);
  }
  EXPECT_TRUE(ModuleBuilder::DeregisterModuleClass("Copier"));
}

TEST_F(CaptureSinkTest, IsDescribedByItsFile) {
  EXPECT_EQ(sink(false)->GetDesc(), (dir_ / "out").string());
}

// Those of several would tear the file apart.
TEST_F(CaptureSinkTest, AllowsManyWorkersOnlyWhenToldSo) {
  EXPECT_EQ(sink(false)->max_allowed_workers(), 1);
  EXPECT_EQ(sink(true)->max_allowed_workers(), Worker::kMaxWorkers);
}

TEST_F(CaptureSinkTest, CountsTheBytesOfAllSegments) {
  rows_ = {{1, std::string(5000, 'x'), 0}};
  writeFile(dir_ / "in", captureBytes(rows_));
  CaptureSource* from = source();
  CaptureSink* to = sink(false);
  connect(from, 0, to);
  while (!from->done()) worker_.Run(from->tasks().front().get());
  EXPECT_EQ(to->Finish(), "");
  EXPECT_EQ(to->packets(), 1u);
  EXPECT_EQ(to->bytes(), 5000u);
}

TEST_F(CaptureSinkTest, StampsWhatComesFromElsewhereWithItsArrival) {
  for (const bool manyWorkers : {false, true}) {
    auto* from = makeModule<Source>("Source", bess::pb::EmptyArg());
    CaptureSink* to = sink(manyWorkers);
    connect(from, 0, to);
    std::vector<CaptureRow> rows;
    for (int i = 0; i < 3; i++) {
      bess::Packet* pkt = bess::PacketPool::Default()->Alloc(1);
      pkt->head_data<char*>()[0] = static_cast<char>(i);
      ASSERT_TRUE(from->Push(pkt));
      worker_.Run(from->tasks().front().get());
      rows.push_back({worker_.context()->current_ns,
                      std::string(1, static_cast<char>(i)), 0});
    }
    EXPECT_EQ(to->Finish(), "");
    EXPECT_EQ(readCapture(dir_ / "out"), rows) << manyWorkers;
    EXPECT_EQ(bess::DestroyAllModules().error().code(), 0);
  }
}

TEST_F(CaptureSinkTest, OnlyCountsWithoutAFile) {
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(dir_.path());
  CaptureSource* from = source();
  auto* to = makeModule<CaptureSink>("CaptureSink", bess::pb::CaptureSinkArg());
  connect(from, 0, to);
  while (!from->done()) worker_.Run(from->tasks().front().get());
  EXPECT_EQ(to->Finish(), "");
  EXPECT_EQ(to->packets(), 80u);
  EXPECT_EQ(to->bytes(), 80u * 60);
  EXPECT_FALSE(std::filesystem::exists(CaptureSink::PartOf("")));
  std::filesystem::current_path(before);
}

// What a port brings in days is more than any memory.
TEST_F(CaptureSinkTest, KeepsNothingOfWhatItHasWritten) {
  auto* from = makeModule<Source>("Source", bess::pb::EmptyArg());
  CaptureSink* to = sink(false);
  connect(from, 0, to);
  const auto heap = [] {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
  };
  constexpr size_t kLen = 2000;
  size_t before = 0;
  for (int i = 0; i < 10000; i++) {
    ASSERT_TRUE(from->Push(bess::PacketPool::Default()->Alloc(kLen)));
    worker_.Run(from->tasks().front().get());
    if (i == 0) before = heap();
  }
  EXPECT_LE(heap(), before + 100 * kLen);
  EXPECT_EQ(to->Finish(), "");
}

TEST_F(CaptureSinkTest, KeepsTheFileThatCannotBeNamed) {
  std::filesystem::create_directory(dir_ / "out");
  CaptureSource* from = source();
  CaptureSink* to = sink(false);
  connect(from, 0, to);
  while (!from->done()) worker_.Run(from->tasks().front().get());
  EXPECT_EQ(to->Finish(), (dir_ / "out").string() + ": Is a directory");
  EXPECT_EQ(readCapture(CaptureSink::PartOf(dir_ / "out")), rows_);
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

// The file of that name that this process has open and nobody else can find.
int FindSpool(const std::filesystem::path& dir) {
  for (const auto& entry :
       std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code error;
    const std::string target =
        std::filesystem::read_symlink(entry.path(), error).string();
    if (target.starts_with((dir / "spool-").string())) {
      return std::stoi(entry.path().filename().string());
    }
  }
  return -1;
}

TEST_F(CaptureSinkTest, GivesTheRoomOfWorkersPartsBackWithTheFile) {
  CaptureSource* from = source();
  CaptureSink* to = sink(true);
  connect(from, 0, to);
  while (!from->done()) worker_.Run(from->tasks().front().get());
  EXPECT_GE(FindSpool(dir_.path()), 0);
  EXPECT_EQ(to->Finish(), "");
  EXPECT_EQ(FindSpool(dir_.path()), -1);
}

// From here on it takes everything, and nothing can be read from it.
void LoseSpool(int spool) {
  const int write_only = open("/dev/null", O_WRONLY | O_CLOEXEC);
  EXPECT_EQ(dup2(write_only, spool), spool);
  close(write_only);
}

// As from a disk that has gone: what is missing is not passed over.
TEST_F(CaptureSinkTest, TellsWhenAWorkersPartCannotBeReadBack) {
  CaptureSource* from = source();
  CaptureSink* to = sink(true);
  connect(from, 0, to);
  while (!from->done()) worker_.Run(from->tasks().front().get());
  const int spool = FindSpool(dir_.path());
  ASSERT_GE(spool, 0);
  EXPECT_EQ(fcntl(spool, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  LoseSpool(spool);
  EXPECT_EQ(to->Finish(), (dir_ / "out").string() + ": Bad file descriptor");
  EXPECT_FALSE(std::filesystem::exists(dir_ / "out"));
}

// While it lives, no file may become longer than ten records.
class LittleDisk {
 public:
  LittleDisk() : handler_(signal(SIGXFSZ, SIG_IGN)) {
    EXPECT_EQ(getrlimit(RLIMIT_FSIZE, &before_), 0);
    const rlimit little = {10 * (8 + 8 + 4 + 4 + 60), before_.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &little), 0);
  }
  ~LittleDisk() {
    setrlimit(RLIMIT_FSIZE, &before_);
    signal(SIGXFSZ, handler_);
  }

 private:
  sighandler_t handler_;
  rlimit before_ = {};
};

TEST_F(CaptureSinkTest, TellsWhenTheFileCannotBeWritten) {
  CaptureSource* from = source();
  CaptureSink* to = sink(false);
  connect(from, 0, to);
  {
    const LittleDisk disk;
    while (!from->done()) worker_.Run(from->tasks().front().get());
    EXPECT_EQ(to->Finish(), (dir_ / "out").string() + ": File too large");
  }
  EXPECT_EQ(to->Finish(), (dir_ / "out").string() + ": File too large");
  EXPECT_FALSE(std::filesystem::exists(dir_ / "out"));
  EXPECT_FALSE(std::filesystem::exists(CaptureSink::PartOf(dir_ / "out")));
}

TEST_F(CaptureSinkTest, TellsTheFirstOfSeveralFailures) {
  CaptureSource* from = source();
  CaptureSink* to = sink(true);
  connect(from, 0, to);
  {
    const LittleDisk disk;
    while (!from->done()) worker_.Run(from->tasks().front().get());
  }
  const int spool = FindSpool(dir_.path());
  ASSERT_GE(spool, 0);
  LoseSpool(spool);
  EXPECT_EQ(to->Finish(), (dir_ / "out").string() + ": File too large");
}

// Where the disk is full there may be whole records, and nothing behind them.
TEST_F(CaptureSinkTest, TellsWhenAWorkersPartCannotBeKept) {
  CaptureSource* from = source();
  CaptureSink* to = sink(true);
  connect(from, 0, to);
  worker_.Run(from->tasks().front().get());
  {
    const LittleDisk disk;
    EXPECT_EQ(to->Finish(), (dir_ / "out").string() + ": File too large");
  }
  EXPECT_FALSE(std::filesystem::exists(dir_ / "out"));
  EXPECT_FALSE(std::filesystem::exists(CaptureSink::PartOf(dir_ / "out")));
}

}  // namespace
}  // namespace openflow_test
