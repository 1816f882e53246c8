// SPDX-License-Identifier: BSD-3-Clause
//
// What a source of captures does in each task run.
#include "modules/capture_source.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "graph.h"
#include "inline_worker.h"
#include "modules/sink.h"
#include "packet_pool.h"
#include "tests/captures/capture_files.h"
#include "tests/captures/make_module.h"
#include "tests/support/frame.h"

namespace openflow_test {
namespace {

using testing::ElementsAre;

// Notes where each packet came from, and frees it.
class Origins final : public Module {
 public:
  void ProcessBatch(Context* ctx, bess::PacketBatch* batch) override {
    const auto* source = static_cast<CaptureSource*>(ctx->task->module());
    for (int i = 0; i < batch->cnt(); i++) {
      const auto* origin = source->FindOrigin(batch->pkts()[i]);
      ASSERT_NE(origin, nullptr);
      seen_.emplace_back(origin->order, origin->ns);
    }
    bess::Packet::Free(batch);
  }
  std::vector<std::pair<uint64_t, uint64_t>> seen_;
};

class CaptureSourceTest : public testing::Test {
 protected:
  CaptureSourceTest() : pool_(bess::PacketPool::Default()) {}
  ~CaptureSourceTest() override {
    EXPECT_EQ(bess::DestroyAllModules().error().code(), 0);
  }

  CaptureSource* source(const std::vector<std::string>& names,
                        uint32_t share = 0, uint32_t shares = 1) {
    bess::pb::CaptureSourceArg arg;
    for (const std::string& name : names) {
      arg.add_inputs()->set_path(dir_ / name);
    }
    arg.set_share(share);
    arg.set_shares(shares);
    return makeModule<CaptureSource>("CaptureSource", arg);
  }

  static void connect(const Module* from, const Module* to) {
    EXPECT_EQ(
        bess::ConnectModules(from->name(), 0, to->name(), 0).error().code(), 0);
  }

  task_result run(const Module* module) {
    return worker_.Run(module->tasks().front().get());
  }

  // All packets that this thread can get but `left`.
  std::vector<bess::Packet*> drain(size_t left) {
    std::vector<bess::Packet*> held;
    while (bess::Packet* pkt = pool_->Alloc()) held.push_back(pkt);
    bess::Packet::Free(held.data() + held.size() - left, left);
    held.resize(held.size() - left);
    return held;
  }

  bess::PacketPool* pool_;
  ScratchDir dir_;
  bess::InlineWorker worker_{0};
};

TEST_F(CaptureSourceTest, TellsWhatEachRunHasDone) {
  std::vector<CaptureRow> rows(40, {1, std::string(100, 'x'), 1500});
  writeFile(dir_ / "in", captureBytes(rows));
  CaptureSource* from = source({"in"});
  connect(from, makeModule<Sink>("Sink", bess::pb::EmptyArg()));
  EXPECT_EQ(from->burst(), 0u);
  for (const uint32_t packets : {32, 8, 0, 0}) {
    EXPECT_FALSE(from->done());
    const task_result result = run(from);
    EXPECT_EQ(result.packets, packets);
    EXPECT_EQ(result.bits, packets * 800u) << "of what there is of them";
    EXPECT_EQ(result.block, packets == 0);
    if (packets == 0) break;
  }
  EXPECT_TRUE(from->done());
  EXPECT_EQ(from->burst(), 3u);
  EXPECT_EQ(from->counts()[0].packets, 40u);
  EXPECT_EQ(from->counts()[0].bytes, 4000u);
  EXPECT_EQ(from->counts()[0].cut, 40u);
}

// Those of the run before are somebody else's by then, or gone.
TEST_F(CaptureSourceTest, KnowsTheOriginsOfThePresentRunOnly) {
  writeFile(dir_ / "in",
            captureBytes(std::vector<CaptureRow>(40, {1, "frame", 0})));
  CaptureSource* from = source({"in"});
  connect(from, makeModule<Sink>("Sink", bess::pb::EmptyArg()));
  bess::Packet* pkt = pool_->Alloc();
  for (const uint32_t packets : {32, 8}) {
    EXPECT_EQ(run(from).packets, packets);
    for (const uint32_t tag : {0u, packets + 1, 33u}) {
      pkt->set_tag(tag);
      EXPECT_EQ(from->FindOrigin(pkt), nullptr) << tag;
    }
    pkt->set_tag(packets);
    ASSERT_NE(from->FindOrigin(pkt), nullptr);
    EXPECT_EQ(from->FindOrigin(pkt)->order, packets == 32 ? 31u : 39u);
  }
  bess::Packet::Free(pkt);
}

TEST_F(CaptureSourceTest, TellsHowManyItPlays) {
  writeFile(dir_ / "a", captureBytes({}));
  EXPECT_EQ(source({"a", "a"})->GetDesc(), "2 captures");
}

TEST_F(CaptureSourceTest, NumbersTheFramesOfAllInputsWhosesoeverTheyAre) {
  std::vector<CaptureRow> a;
  std::vector<CaptureRow> b;
  for (uint64_t i = 0; i < 100; i++) {
    // Frames without a flow are dealt out by their addresses.
    (i % 3 == 0 ? b : a)
        .push_back({1000 + i, std::string(60, static_cast<char>(i)), 0});
  }
  writeFile(dir_ / "a", captureBytes(a));
  writeFile(dir_ / "b", captureBytes(b));
  ASSERT_TRUE(ModuleBuilder::RegisterModuleClass(
      [] { return new Origins; }, "Origins", "origins", "", 1, 0, {},
      MODULE_INIT_FUNC(&Module::Init)));
  std::vector<int> seen(100, 0);
  for (const uint32_t share : {0, 1}) {
    CaptureSource* from = source({"a", "b"}, share, 2);
    auto* to = makeModule<Origins>("Origins", bess::pb::EmptyArg());
    connect(from, to);
    EXPECT_EQ(from->size(), std::filesystem::file_size(dir_ / "a") +
                                std::filesystem::file_size(dir_ / "b"));
    while (!from->done()) run(from);
    EXPECT_EQ(from->position(), from->size());
    EXPECT_GT(to->seen_.size(), 10u);
    uint64_t last = 0;
    for (const auto& [order, ns] : to->seen_) {
      ASSERT_LT(order, 100u);
      EXPECT_EQ(ns, 1000 + order);
      EXPECT_GE(order, last);
      seen[order]++;
      last = order;
    }
    EXPECT_EQ(bess::DestroyAllModules().error().code(), 0);
  }
  EXPECT_EQ(seen, std::vector<int>(100, 1));
  EXPECT_TRUE(ModuleBuilder::DeregisterModuleClass("Origins"));
}

// Whatever the reader's memory holds behind their last byte.
TEST_F(CaptureSourceTest, CutFramesOfAFlowStayTogether) {
  constexpr size_t kCut = 34;  // behind the IPv4 header
  const Bytes whole =
      Frame::eth().ipv4(ip4("10.0.0.1"), ip4("10.0.0.2")).udp(1, 53).bytes();
  std::vector<CaptureRow> rows;
  for (uint64_t i = 0; i < 32; i++) {
    rows.push_back({i, std::string(60, static_cast<char>(i * 7)), 0});
    rows.push_back({i, std::string(whole.begin(), whole.begin() + kCut), 60});
  }
  writeFile(dir_ / "in", captureBytes(rows));
  std::vector<size_t> cut;
  for (const uint32_t share : {0, 1}) {
    CaptureSource* from = source({"in"}, share, 2);
    auto* to = makeModule<Sink>("Sink", bess::pb::EmptyArg());
    connect(from, to);
    while (!from->done()) run(from);
    const auto captured = to->Take();
    cut.push_back(std::ranges::count_if(
        captured, [&](const auto& one) { return one.bytes.size() == kCut; }));
    EXPECT_EQ(bess::DestroyAllModules().error().code(), 0);
  }
  EXPECT_THAT(cut, testing::UnorderedElementsAre(0u, 32u));
}

TEST_F(CaptureSourceTest, WaitsForPacketsAndHoldsNoneMeanwhile) {
  const std::vector<CaptureRow> rows = {
      {1, "first", 0}, {2, std::string(5000, 'l'), 0}, {3, "last", 0}};
  writeFile(dir_ / "in", captureBytes(rows));
  CaptureSource* from = source({"in"});
  auto* to = makeModule<Sink>("Sink", bess::pb::EmptyArg());
  connect(from, to);
  // The second frame takes three, of which there are two.
  std::vector<bess::Packet*> held = drain(2);
  const size_t available = pool_->available();
  EXPECT_EQ(run(from).packets, 1u);
  for (int i = 0; i < 3; i++) {
    const task_result result = run(from);
    EXPECT_EQ(result.packets, 0u);
    EXPECT_TRUE(result.block);
    EXPECT_FALSE(from->done());
    EXPECT_EQ(pool_->available(), available);
  }
  bess::Packet::Free(held.data(), held.size());
  while (!from->done()) run(from);
  std::vector<std::string> bytes;
  for (const Sink::Captured& one : to->Take()) bytes.push_back(one.bytes);
  EXPECT_THAT(bytes, ElementsAre(rows[0].bytes, rows[1].bytes, rows[2].bytes));
  EXPECT_EQ(from->counts()[0].packets, 3u);
}

}  // namespace
}  // namespace openflow_test
