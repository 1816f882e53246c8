// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <atomic>
#include <cstdint>
#include <thread>

#include "tests/support/frame.h"
#include "tests/switch/live_bench.h"

namespace ofswitch {

// Packets for port 1 without a pause, until it is destroyed.
class Traffic {
 public:
  explicit Traffic(LiveBench* bench)
      : thread_([this, bench] {
          const openflow_test::Frame frame =
              openflow_test::Frame::eth()
                  .ipv4(openflow_test::ip4("10.0.0.1"),
                        openflow_test::ip4("10.0.0.2"))
                  .tcp(1000, 80);
          while (!ending_) {
            bench->receive(1, frame, 32);
            sent_ += 32;
          }
        }) {}
  ~Traffic() { end(); }

  uint64_t end() {
    ending_ = true;
    if (thread_.joinable()) thread_.join();
    return sent_;
  }
  uint64_t sent() const { return sent_; }

 private:
  std::atomic<bool> ending_ = false;
  std::atomic<uint64_t> sent_ = 0;
  std::thread thread_;
};

}  // namespace ofswitch
