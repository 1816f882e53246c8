// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "graph.h"
#include "inline_worker.h"
#include "modules/sink.h"
#include "packet_pool.h"

// A module whose behaviour each test writes itself. Class "Probe": all gates,
// commands "safe" (thread-safe), "unsafe" and "throw".
class Probe final : public Module {
 public:
  static constexpr gate_idx_t kNumIGates = MAX_GATES;
  static constexpr gate_idx_t kNumOGates = MAX_GATES;
  static const Commands cmds;

  // What happened to any probe since the test began, such as "DeInit a".
  static std::vector<std::string>& log();

  ~Probe() override;

  // Registers one task. Throws or fails as told by `next_init`.
  CommandResponse Init(const bess::pb::EmptyArg&);
  void DeInit() override;
  task_result RunTask(Context* ctx, bess::PacketBatch* batch,
                      void* arg) override;
  void ProcessBatch(Context* ctx, bess::PacketBatch* batch) override;
  int OnEvent(bess::Event event) override;

  CommandResponse Safe(const bess::pb::EmptyArg&);
  CommandResponse Unsafe(const bess::pb::EmptyArg&);
  CommandResponse Throw(const bess::pb::EmptyArg&);
  // Answers its argument.
  CommandResponse Echo(const bess::pb::Error& error);

  void AllowWorkers(int min, int max) {
    min_allowed_workers_ = min;
    max_allowed_workers_ = max;
  }
  void PropagateWorkers(bool propagate) { propagate_workers_ = propagate; }

  Task* task() const { return tasks().front().get(); }

  std::function<void(Context*, bess::PacketBatch*)> on_run;
  std::function<void(Context*, bess::PacketBatch*)> on_batch;
  bool throw_in_deinit = false;

  enum class InitOutcome { kSucceed, kFail, kThrow };
  static InitOutcome next_init;
};

// Destroys what a test has made, and checks that no packet has leaked.
class HostTest : public testing::Test {
 protected:
  HostTest();
  ~HostTest() override;

  // Instances by class; fail the test when they cannot be made.
  Probe* MakeProbe(const std::string& name);
  Sink* MakeSink(const std::string& name);
  static void Connect(const Module* from, gate_idx_t ogate, const Module* to,
                      gate_idx_t igate);

  // A packet that holds `text`.
  static bess::Packet* MakePacket(const std::string& text);
  // What packets hold.
  static std::vector<std::string> Texts(
      const std::vector<Sink::Captured>& captured);

  bess::PacketPool* pool_;

 private:
  size_t available_before_;
};
