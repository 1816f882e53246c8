// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>

#include "switch/control/call_list.h"
#include "switch/control/stream_call.h"
#include "switch/control/work_queue.h"
#include "switch/live/live_switch.h"

namespace ofswitch {

// The listings that clients are being sent. A listing keeps its flows until
// they are sent, those that the switch has no more among them, so that all
// together may keep only so many: then new ones wait, and while they wait,
// those whose clients do not read are ended.
class FlowListings {
 public:
  // `longestRest` is how long a client may rest while others wait.
  explicit FlowListings(
      const LiveSwitch* live, size_t mostFlows = 1'000'000,
      std::chrono::milliseconds longestRest = std::chrono::seconds(10))
      : live_(live), mostFlows_(mostFlows), longestRest_(longestRest) {}

  // Answers one call; `queue` runs what waits for the command thread.
  std::shared_ptr<StreamCall> start(WorkQueue* queue,
                                    grpc::CallbackServerContext* context,
                                    const grpc::ByteBuffer* request);

  // Lets those wait no longer that can go on. To be called now and then.
  void tick();

 private:
  class Reader;

  bool isFull();

  const LiveSwitch* const live_;
  const size_t mostFlows_;
  const std::chrono::milliseconds longestRest_;
  CallList<Reader> calls_;
};

}  // namespace ofswitch
