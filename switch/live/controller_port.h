// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

#include "module.h"
#include "modules/capture_writer.h"

struct rte_ring;

namespace ofswitch {

// The module class behind gate 0: takes what flows send to the controller.
// Each packet is counted and leaves a line in the trace ring, with its first
// bytes; if wished for, all of it goes to a capture file, which a thread of
// its own writes.
class ControllerPort final : public Module {
 public:
  static constexpr char kClassName[] = "ControllerPort";

  struct Counts {
    uint64_t packets = 0;
    uint64_t bytes = 0;
    uint64_t notCaptured = 0;  // the capture's queue was full
    uint64_t notWritten = 0;   // the capture's file took no more
  };

  ControllerPort();
  ~ControllerPort() override;

  void ProcessBatch(Context* ctx, bess::PacketBatch* batch) override;

  // Writes all packets to `path` from now on. For the command thread, while no
  // worker runs. Answers an error text, empty on success. What goes wrong later
  // is told on standard error, traced, and counted for each packet.
  std::string startCapture(const std::string& path);
  // Writes what is still queued. Answers the first error of the capture.
  std::string stopCapture();

  Counts counts() const;

 private:
  // Written by one worker each.
  struct alignas(64) PerWorker {
    std::atomic<uint64_t> packets = 0;
    std::atomic<uint64_t> bytes = 0;
    std::atomic<uint64_t> notCaptured = 0;
  };

  // The capture's thread, until it is told to stop.
  void writeCapture(bess::CaptureWriter writer);

  PerWorker workers_[Worker::kMaxWorkers];
  rte_ring* queue_ = nullptr;  // of packets for the capture
  std::atomic<bool> stop_ = false;
  std::atomic<uint64_t> notWritten_ = 0;
  std::thread writer_;
  std::string error_;
};

}  // namespace ofswitch
