// SPDX-License-Identifier: BSD-3-Clause
//
// Traffic for real workers: a source that every worker has for itself, in place
// of a receive queue, and a sink that tells how long packets took.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "bench/bench_rig.h"
#include "bench/measure.h"

namespace bench {

// Makes copies of `frames`, one every `gap` processor cycles; as many as it can
// when that is 0. A packet carries the time at which it was due, also when the
// worker comes late for it, so that waiting counts. Set up while paused.
class PacedSource final : public Module {
 public:
  PacedSource() = default;

  CommandResponse Init(const bess::pb::EmptyArg&);
  task_result RunTask(Context* ctx, bess::PacketBatch* batch,
                      void* arg) override;

  void setFrames(bess::PacketPool* pool, std::vector<FrameBytes> frames);
  void setGap(uint64_t gap);

  // Lets the thread that runs the source from now on go before others that want
  // its processor, if it may: what an isolated processor does.
  void goFirst() { goFirst_ = true; }

  // Packets so far. Any thread.
  uint64_t packets() const { return packets_.load(std::memory_order_relaxed); }

 private:
  uint64_t packetsDue();

  bess::PacketPool* pool_ = nullptr;
  std::vector<FrameBytes> frames_;
  size_t nextFrame_ = 0;
  bool goFirst_ = false;
  uint64_t gap_ = 0;
  uint64_t due_ = 0;  // when the next packet is
  std::atomic<uint64_t> packets_ = 0;
};

// Keeps the cycles from a packet's due time to its arrival here, and frees it.
// For one worker at a time.
class TimingSink final : public Module {
 public:
  CommandResponse Init(const bess::pb::EmptyArg&) { return CommandSuccess(); }
  void ProcessBatch(Context* ctx, bess::PacketBatch* batch) override;

  // What was kept since the last call. While paused.
  std::vector<uint64_t> take();

 private:
  std::vector<uint64_t> cycles_;
};

// Instances of them.
PacedSource* makeSource(const std::string& name);
TimingSink* makeTimingSink(const std::string& name);

}  // namespace bench
