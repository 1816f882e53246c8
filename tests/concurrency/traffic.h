// SPDX-License-Identifier: BSD-3-Clause
//
// Modules in front of and behind the one under test: BatchSource sends full
// batches as fast as its worker runs it, BatchSink reads what comes back. Both
// leave the judging to the worker's BatchJudge.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "module.h"
#include "packet_pool.h"
#include "tests/concurrency/batch_judge.h"

namespace openflow_test {

class BatchSource final : public Module {
 public:
  static constexpr gate_idx_t kNumIGates = 0;
  static constexpr gate_idx_t kNumOGates = 1;
  static const Commands cmds;

  CommandResponse Init(const bess::pb::EmptyArg&);
  task_result RunTask(Context* ctx, bess::PacketBatch* batch,
                      void* arg) override;

  // Before the first run.
  void use(bess::PacketPool* pool, BatchJudge* judge) {
    pool_ = pool;
    judge_ = judge;
  }

 private:
  bess::PacketPool* pool_ = nullptr;
  BatchJudge* judge_ = nullptr;
  std::vector<Bytes> frames_;
};

class BatchSink final : public Module {
 public:
  static constexpr gate_idx_t kNumIGates = MAX_GATES;
  static constexpr gate_idx_t kNumOGates = 0;
  static const Commands cmds;

  BatchSink() { max_allowed_workers_ = Worker::kMaxWorkers; }
  void ProcessBatch(Context* ctx, bess::PacketBatch* batch) override;

  void use(int wid, BatchJudge* judge) {
    judges_[static_cast<size_t>(wid)] = judge;
  }

 private:
  std::array<BatchJudge*, Worker::kMaxWorkers> judges_{};
};

}  // namespace openflow_test
