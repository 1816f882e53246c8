// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "switch/live/live_switch.h"
#include "tests/captures/capture_files.h"
#include "tests/support/bytes.h"

namespace ofswitch {

// A switch in this process with ports that need nothing of the machine:
//   1, 2  rings, which a test fills with frames; what is sent there comes back
//   3     writes a capture file
class LiveBench {
 public:
  using Bytes = openflow_test::Bytes;

  struct Options {
    int workers = 1;
    std::string flows = {};
    std::string controllerCapture = {};  // in the bench's directory
    uint32_t counters = 4096;
    size_t buffers = 16383;      // of the process: the first bench decides
    bool dpdkTelemetry = false;  // likewise
    uint16_t queues = 1;         // asked of port 3, which has one
    size_t buildMb = 0;
  };

  explicit LiveBench(const Options& options);
  // Stops, and checks that all packet buffers came back.
  ~LiveBench();

  LiveSwitch* operator->() { return switch_.get(); }
  LiveSwitch& live() { return *switch_; }
  void stop();

  // Gives `port` frames to receive; returns when they were taken.
  void receive(uint16_t port, const std::vector<Bytes>& frames);
  void receive(uint16_t port, const Bytes& frame, int count = 1) {
    receive(port, std::vector<Bytes>(static_cast<size_t>(count), frame));
  }

  // Gives `port` frames while the workers rest, then lets them run.
  void receiveAtOnce(uint16_t port, const std::vector<Bytes>& frames);

  // The statistics of a moment in which no packet is under way; fails the test
  // when they do not close.
  pb::StatsReply settled();
  static uint64_t drops(const pb::StatsReply& stats, const std::string& name);

  pb::FlowChangeReply change(pb::FlowOperation operation,
                             const std::string& text, bool strict = false);
  pb::FlowChangeReply add(const std::string& text) {
    return change(pb::FLOW_OPERATION_ADD, text);
  }
  // The lines of a listing.
  std::vector<std::string> dump(const std::string& filter = "");
  std::vector<pb::FlowEntry> entries(const std::string& filter = "");

  // What port 3 has written; stops the switch.
  std::vector<Bytes> sentOnPort3();
  std::filesystem::path path(const std::string& name) const {
    return dir_ / name;
  }

  // Moves the clock of timeouts and ages.
  void pass(std::chrono::milliseconds time) { *offset_ += time.count(); }

 private:
  using Offset = std::atomic<std::chrono::milliseconds::rep>;

  static void enqueue(uint16_t port, const std::vector<Bytes>& frames);
  static void waitUntilTaken(uint16_t port);

  openflow_test::ScratchDir dir_;
  std::shared_ptr<Offset> offset_;
  std::unique_ptr<LiveSwitch> switch_;
  size_t buffers_ = 0;
};

}  // namespace ofswitch
