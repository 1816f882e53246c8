// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "module.h"
#include "modules/capture_reader.h"
#include "packet_pool.h"
#include "pb/capture_msg.pb.h"

// Plays captures: emits their frames on gate 0, merged by time, up to 32 a task
// run, as fast as they are handled. A packet carries the port of its capture
// (port_metadata.h), and a tag by which modules downstream find its Origin
// while the task run lasts, whatever copies were made of it.
//
// No frame is lost in silence: frames larger than one packet buffer become
// chained packets, and when the pool is dry the source waits.
class CaptureSource final : public Module {
 public:
  static constexpr gate_idx_t kNumIGates = 0;
  static constexpr gate_idx_t kNumOGates = 1;
  static const Commands cmds;

  // Where an emitted packet came from.
  struct Origin {
    uint64_t order = 0;  // position among all frames of all inputs, from 0
    uint64_t ns = 0;     // time stamp
  };

  struct PortCounts {
    uint32_t port = 0;
    uint64_t packets = 0;
    uint64_t bytes = 0;
    uint64_t cut = 0;  // frames of which the capture holds only the start
  };

  CommandResponse Init(const bess::pb::CaptureSourceArg& arg);
  task_result RunTask(Context* ctx, bess::PacketBatch* batch,
                      void* arg) override;
  std::string GetDesc() const override;

  // The origin of a packet that this source emitted in the present task run,
  // or of a copy of it; null for any other packet. For the source's worker.
  const Origin* FindOrigin(const bess::Packet* pkt) const {
    const uint32_t tag = pkt->tag();
    return tag > 0 && tag <= burst_.size() ? &burst_[tag - 1] : nullptr;
  }

  // Number of the present task run, from 1.
  uint64_t burst() const { return bursts_; }

  // Whether all packets were emitted and have gone all the way. How far reading
  // has come, and the end of the way, in bytes of all inputs (CaptureReader).
  // From any thread.
  bool done() const { return done_.load(std::memory_order_acquire); }
  uint64_t position() const {
    return position_.load(std::memory_order_relaxed);
  }
  uint64_t size() const;

  // Once it is done: what went wrong in each input that could not be read to
  // its end, and what was emitted, by input.
  std::vector<std::string> errors() const;
  const std::vector<PortCounts>& counts() const { return counts_; }

 private:
  bool Mine(const bess::CapturedFrame& frame) const;
  bess::Packet* MakePacket(const bess::CapturedFrame& frame);
  const bess::CaptureMerger::Input* NextFrame();

  bess::CaptureMerger merger_;
  bess::PacketPool* pool_ = nullptr;
  uint32_t share_ = 0;
  uint32_t shares_ = 1;

  // A frame that waits for room in the pool; null: the next one is to be read.
  const bess::CaptureMerger::Input* waiting_ = nullptr;
  uint64_t next_order_ = 0;
  uint64_t bursts_ = 0;
  std::vector<Origin> burst_;  // by tag - 1
  std::vector<PortCounts> counts_;

  std::atomic<uint64_t> position_ = 0;
  std::atomic<bool> done_ = false;
};
