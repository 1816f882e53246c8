// SPDX-License-Identifier: BSD-3-Clause
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <utility>

#include "graph.h"
#include "modules/capture_sink.h"
#include "modules/capture_source.h"
#include "modules/flow_hash.h"
#include "modules/sink.h"
#include "modules/source.h"
#include "packet_pool.h"
#include "tests/captures/capture_files.h"
#include "tests/support/frame.h"
#include "tests/support/time_limit.h"
#include "worker.h"

namespace openflow_test {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

std::string text(const Frame& frame) {
  const Bytes bytes = frame.bytes();
  return std::string(bytes.begin(), bytes.end());
}

Frame flow(uint16_t port) {
  return Frame::eth().ipv4(ip4("10.0.0.1"), ip4("10.0.0.2")).udp(port, 53);
}

class CaptureModules : public testing::Test {
 protected:
  CaptureModules() : freeBefore_(bess::PacketPool::Default()->available()) {}

  ~CaptureModules() override {
    Worker::PauseAll();
    EXPECT_EQ(bess::DestroyAllModules().error().code(), 0);
    Worker::StopAll();
    EXPECT_EQ(bess::PacketPool::Default()->available(), freeBefore_);
  }

  template <class M>
  M* make(const std::string& className, const google::protobuf::Message& arg) {
    google::protobuf::Any any;
    any.PackFrom(arg);
    const bess::CreateResult result = bess::CreateModule(className, "", any);
    failure_ = result.response.error().errmsg();
    code_ = result.response.error().code();
    return static_cast<M*>(result.module);
  }

  CaptureSource* source(std::vector<std::pair<uint32_t, std::string>> inputs,
                        uint32_t share = 0, uint32_t shares = 0) {
    bess::pb::CaptureSourceArg arg;
    for (const auto& [port, path] : inputs) {
      auto* input = arg.add_inputs();
      input->set_port(port);
      input->set_path(path);
    }
    arg.set_share(share);
    arg.set_shares(shares);
    return make<CaptureSource>("CaptureSource", arg);
  }

  CaptureSink* sink(const std::string& path, bool manyWorkers = false) {
    bess::pb::CaptureSinkArg arg;
    arg.set_path(path);
    arg.set_many_workers(manyWorkers);
    return make<CaptureSink>("CaptureSink", arg);
  }

  // Plays the sources, each on a worker of its own, into `to`.
  void play(std::vector<CaptureSource*> sources, Module* to) {
    for (size_t i = 0; i < sources.size(); i++) {
      const int wid = static_cast<int>(i);
      ASSERT_EQ(bess::ConnectModules(sources[i]->name(), 0, to->name(), 0)
                    .error()
                    .code(),
                0);
      ASSERT_EQ(Worker::Add(wid), "");
      ASSERT_EQ(Worker::AttachTasks(sources[i], wid), "");
    }
    ASSERT_EQ(Worker::ResumeAll(), "");
    for (const CaptureSource* source : sources) {
      while (!source->done()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    }
    Worker::PauseAll();
  }

  ScratchDir dir_;
  std::string failure_;
  int code_ = 0;

 private:
  size_t freeBefore_;
};

TEST_F(CaptureModules, HaveGatesOnOneSide) {
  const auto& builders = ModuleBuilder::all_module_builders();
  EXPECT_EQ(builders.at("CaptureSource").NumIGates(), 0);
  EXPECT_EQ(builders.at("CaptureSource").NumOGates(), 1);
  EXPECT_EQ(builders.at("CaptureSink").NumIGates(), 1);
  EXPECT_EQ(builders.at("CaptureSink").NumOGates(), 0);
}

// As when who plays it fails in the midst.
TEST_F(CaptureModules, AFileThatNobodyFinishedKeepsItsOtherName) {
  std::vector<CaptureRow> rows;
  for (uint64_t i = 0; i < 100; i++) rows.push_back({i, text(flow(i)), 0});
  writeFile(dir_ / "in", captureBytes(rows));
  play({source({{3, dir_ / "in"}})}, sink(dir_ / "out"));
  Worker::StopAll();
  bess::DestroyAllModules();
  EXPECT_FALSE(std::filesystem::exists(dir_ / "out"));
  const std::string part = readFile(CaptureSink::PartOf(dir_ / "out"));
  EXPECT_EQ(part.substr(24), captureBytes(rows).substr(24));
}

TEST_F(CaptureModules, WhatGoesInComesOutWithItsTime) {
  std::vector<CaptureRow> rows;
  for (uint64_t i = 0; i < 100; i++) {
    rows.push_back({1'000'000'000'000 + i * 7, text(flow(i % 60000)), 0});
  }
  writeFile(dir_ / "in", captureBytes(rows));
  CaptureSource* from = source({{3, dir_ / "in"}});
  CaptureSink* to = sink(dir_ / "out");
  play({from}, to);
  // A file that has its name is whole.
  EXPECT_FALSE(std::filesystem::exists(dir_ / "out"));
  EXPECT_TRUE(std::filesystem::exists(dir_ / "out.part"));
  EXPECT_EQ(to->Finish(), "");
  EXPECT_FALSE(std::filesystem::exists(dir_ / "out.part"));
  EXPECT_EQ(readCapture(dir_ / "out"), rows);
  EXPECT_EQ(to->packets(), 100u);
  EXPECT_EQ(to->bytes(), 100 * rows[0].bytes.size());
  EXPECT_EQ(from->counts()[0].packets, 100u);
  EXPECT_EQ(from->counts()[0].bytes, to->bytes());
  EXPECT_THAT(from->errors(), IsEmpty());
  EXPECT_EQ(from->ogates()[0]->packets(), 100u);
  EXPECT_EQ(from->position(), from->size());
}

TEST_F(CaptureModules, PacketsCarryTheirPort) {
  writeFile(dir_ / "a", captureBytes({{1, text(flow(1)), 0}}));
  writeFile(dir_ / "b", captureBytes({{2, text(flow(2)), 0}}));
  CaptureSource* from = source({{5, dir_ / "a"}, {8191, dir_ / "b"}});
  auto* to = make<Sink>("Sink", bess::pb::EmptyArg());
  play({from}, to);
  const std::vector<Sink::Captured> packets = to->Take();
  ASSERT_THAT(packets, SizeIs(2));
  const uint32_t ports[] = {5, 8191};
  for (int i = 0; i < 2; i++) {
    uint64_t flags, metadata;
    uint32_t inPort;
    memcpy(&flags, packets[i].metadata.data(), 8);
    memcpy(&metadata, packets[i].metadata.data() + 16, 8);
    memcpy(&inPort, packets[i].metadata.data() + 52, 4);
    EXPECT_EQ(flags, 0x10001u);
    EXPECT_EQ(metadata, ports[i]);
    EXPECT_EQ(inPort, ports[i]);
    EXPECT_EQ(from->counts()[i].port, ports[i]);
    EXPECT_EQ(from->counts()[i].packets, 1u);
  }
}

TEST_F(CaptureModules, LargeFramesAreChained) {
  std::string large(5000, 0);
  for (size_t i = 0; i < large.size(); i++) {
    large[i] = static_cast<char>(i * 7);
  }
  const std::vector<CaptureRow> rows = {
      {1, large, 0},
      {2, large.substr(0, 2048), 0},
      {3, large.substr(0, 2049), 0},
      {4, std::string(), 1},
  };
  writeFile(dir_ / "in", captureBytes(rows));
  CaptureSource* from = source({{1, dir_ / "in"}});
  auto* to = make<Sink>("Sink", bess::pb::EmptyArg());
  play({from}, to);
  const auto packets = to->Take();
  ASSERT_THAT(packets, SizeIs(4));
  const int segments[] = {3, 1, 2, 1};
  for (int i = 0; i < 4; i++) {
    EXPECT_EQ(packets[i].segments, segments[i]);
    EXPECT_EQ(packets[i].bytes, rows[i].bytes);
  }
  EXPECT_EQ(from->counts()[0].cut, 1u);  // the last one, of its only byte
}

TEST_F(CaptureModules, LargeFramesAreWrittenWhole) {
  const std::vector<CaptureRow> rows = {{1, std::string(65000, 'y'), 0}};
  writeFile(dir_ / "in", captureBytes(rows));
  CaptureSource* from = source({{1, dir_ / "in"}});
  CaptureSink* to = sink(dir_ / "out");
  play({from}, to);
  EXPECT_EQ(to->Finish(), "");
  EXPECT_EQ(readCapture(dir_ / "out"), rows);
}

TEST_F(CaptureModules, CutFramesArePlayedAsTheyAreAndCounted) {
  writeFile(dir_ / "in",
            captureBytes({{1, "0123456789abcd", 60}, {2, "full", 0}}));
  CaptureSource* from = source({{1, dir_ / "in"}});
  CaptureSink* to = sink(dir_ / "out");
  play({from}, to);
  EXPECT_EQ(to->Finish(), "");
  EXPECT_EQ(
      readCapture(dir_ / "out"),
      (std::vector<CaptureRow>{{1, "0123456789abcd", 0}, {2, "full", 0}}));
  EXPECT_EQ(from->counts()[0].cut, 1u);
}

TEST_F(CaptureModules, WhatWasReadBeforeAnErrorIsNotLost) {
  const std::string whole =
      captureBytes({{1, text(flow(1)), 0}, {2, text(flow(2)), 0}});
  writeFile(dir_ / "in", whole.substr(0, whole.size() - 5));
  CaptureSource* from = source({{1, dir_ / "in"}});
  CaptureSink* to = sink(dir_ / "out");
  play({from}, to);
  EXPECT_EQ(to->Finish(), "");
  EXPECT_THAT(readCapture(dir_ / "out"), SizeIs(1));
  ASSERT_THAT(from->errors(), SizeIs(1));
  EXPECT_THAT(from->errors()[0], HasSubstr("in: after packet 1: truncated"));
}

TEST_F(CaptureModules, TheErrorsOfAllInputsAreTold) {
  const std::string whole =
      captureBytes({{1, text(flow(1)), 0}, {2, text(flow(2)), 0}});
  writeFile(dir_ / "a", whole.substr(0, whole.size() - 5));
  writeFile(dir_ / "good", whole);
  writeFile(dir_ / "b", whole.substr(0, 30));
  CaptureSource* from =
      source({{1, dir_ / "a"}, {2, dir_ / "good"}, {3, dir_ / "b"}});
  play({from}, make<Sink>("Sink", bess::pb::EmptyArg()));
  ASSERT_THAT(from->errors(), SizeIs(2));
  EXPECT_THAT(from->errors()[0], HasSubstr("a: after packet 1: truncated"));
  EXPECT_THAT(from->errors()[1], HasSubstr("b: after packet 0: truncated"));
}

TEST_F(CaptureModules, SharesOfManyWorkersMergeIntoOneFile) {
  std::vector<CaptureRow> rows;
  for (uint64_t i = 0; i < 1000; i++) {
    rows.push_back({i / 3, text(flow(static_cast<uint16_t>(i % 17))), 0});
  }
  writeFile(dir_ / "in", captureBytes(rows));
  std::vector<CaptureSource*> sources;
  for (uint32_t share = 0; share < 3; share++) {
    sources.push_back(source({{1, dir_ / "in"}}, share, 3));
  }
  CaptureSink* to = sink(dir_ / "out", true);
  play(sources, to);
  EXPECT_EQ(to->Finish(), "");
  EXPECT_EQ(readCapture(dir_ / "out"), rows);
  uint64_t sum = 0;
  for (const CaptureSource* one : sources) {
    EXPECT_GT(one->counts()[0].packets, 0u);
    sum += one->counts()[0].packets;
  }
  EXPECT_EQ(sum, rows.size());
  // Nothing but the output is left behind.
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir_.path()),
                          std::filesystem::directory_iterator()),
            2);
}

TEST_F(CaptureModules, ASinkThatGetsNothingMakesNoFile) {
  writeFile(dir_ / "in", captureBytes({}));
  CaptureSource* from = source({{1, dir_ / "in"}});
  CaptureSink* to = sink(dir_ / "out");
  play({from}, to);
  EXPECT_EQ(to->Finish(), "");
  EXPECT_FALSE(std::filesystem::exists(dir_ / "out"));
}

// A worker's memory would not hold what a port brings in days.
TEST_F(CaptureModules, WhatComesFromNoCaptureIsWrittenAsItComes) {
  auto* from = make<Source>("Source", bess::pb::EmptyArg());
  CaptureSink* to = sink(dir_ / "out");
  ASSERT_EQ(bess::ConnectModules(from->name(), 0, to->name(), 0).error().code(),
            0);
  ASSERT_EQ(Worker::Add(0), "");
  ASSERT_EQ(Worker::AttachTasks(from, 0), "");
  constexpr uint16_t kPackets = 200;
  constexpr uint16_t kLen = 1000;
  for (uint16_t i = 0; i < kPackets; i++) {
    bess::Packet* pkt = bess::PacketPool::Default()->Alloc(kLen);
    memset(pkt->head_data(), i, kLen);
    ASSERT_TRUE(from->Push(pkt));
  }
  ASSERT_EQ(Worker::ResumeAll(), "");
  const auto deadline =
      std::chrono::steady_clock::now() + timeLimit(std::chrono::seconds(10));
  while (from->waiting() > 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  Worker::PauseAll();
  // But for what waits in the stream's buffer.
  EXPECT_GT(std::filesystem::file_size(CaptureSink::PartOf(dir_ / "out")),
            kPackets * kLen * 9 / 10);
  EXPECT_EQ(to->Finish(), "");
  const std::vector<CaptureRow> rows = readCapture(dir_ / "out");
  ASSERT_THAT(rows, SizeIs(kPackets));
  for (uint16_t i = 0; i < kPackets; i++) {
    EXPECT_EQ(rows[i].bytes, std::string(kLen, static_cast<char>(i)));
    EXPECT_GE(rows[i].ns, rows[0].ns);
  }
}

TEST_F(CaptureModules, SaysWhyItCannotWrite) {
  writeFile(dir_ / "in", captureBytes({{1, text(flow(1)), 0}}));
  CaptureSource* from = source({{1, dir_ / "in"}});
  CaptureSink* to = sink(dir_ / "nowhere" / "out");
  play({from}, to);
  EXPECT_EQ(to->Finish(), (dir_ / "nowhere" / "out").string() +
                              ": No such file or directory");
}

TEST_F(CaptureModules, RefusesArgumentsThatCannotWork) {
  EXPECT_EQ(source({}), nullptr);
  EXPECT_EQ(failure_, "no inputs");
  EXPECT_EQ(code_, EINVAL);
  writeFile(dir_ / "in", captureBytes({}));
  for (const auto& [share, shares] : {std::pair(2, 2), std::pair(5, 2)}) {
    EXPECT_EQ(source({{1, dir_ / "in"}}, share, shares), nullptr);
    EXPECT_EQ(failure_, "share " + std::to_string(share) + ": must be below " +
                            std::to_string(shares));
    EXPECT_EQ(code_, EINVAL);
  }
  EXPECT_EQ(source({{1, dir_ / "none"}}), nullptr);
  EXPECT_THAT(failure_, HasSubstr("none: No such file"));
  EXPECT_EQ(code_, EINVAL);
}

// Parsers read headers at fixed places: behind a short frame there must be
// zeros, and not the frame that used the buffer before.
TEST_F(CaptureModules, ShortFramesEndInZeros) {
  class Peek final : public Module {
   public:
    void ProcessBatch(Context*, bess::PacketBatch* batch) override {
      for (int i = 0; i < batch->cnt(); i++) {
        const bess::Packet* pkt = batch->pkts()[i];
        tails_.push_back(std::string(pkt->head_data<char*>(pkt->data_len()),
                                     128 - pkt->data_len()));
      }
      bess::Packet::Free(batch);
    }
    std::vector<std::string> tails_;
  };
  ASSERT_TRUE(ModuleBuilder::RegisterModuleClass(
      [] { return new Peek; }, "Peek", "peek", "", 1, 0, {},
      MODULE_INIT_FUNC(&Module::Init)));
  std::vector<CaptureRow> rows;
  for (uint64_t i = 0; i < 2000; i++) {
    rows.push_back({i, std::string(i % 2 == 0 ? 127 : 20, 'z'), 0});
  }
  writeFile(dir_ / "in", captureBytes(rows));
  CaptureSource* from = source({{1, dir_ / "in"}});
  auto* to = make<Peek>("Peek", bess::pb::EmptyArg());
  play({from}, to);
  ASSERT_THAT(to->tails_, SizeIs(2000));
  for (size_t i = 0; i < to->tails_.size(); i++) {
    EXPECT_EQ(to->tails_[i], std::string(128 - rows[i].bytes.size(), '\0'));
  }
  bess::DestroyModule(to->name());
  EXPECT_TRUE(ModuleBuilder::DeregisterModuleClass("Peek"));
}

}  // namespace
}  // namespace openflow_test
