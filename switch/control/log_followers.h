// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdint>
#include <memory>

#include "switch/control/call_list.h"
#include "switch/control/stream_call.h"
#include "switch/control/work_queue.h"
#include "switch/live/live_switch.h"

namespace ofswitch {

// The clients that are being sent the log, and wakes those that follow it when
// there is something new. Writers of the log do not tell of it: they must not
// wait for anybody.
class LogFollowers {
 public:
  explicit LogFollowers(const LiveSwitch* live) : live_(live) {}

  // Answers one call.
  std::shared_ptr<StreamCall> start(WorkQueue* queue,
                                    grpc::CallbackServerContext* context,
                                    const grpc::ByteBuffer* request);

  // Wakes who has something to read. To be called now and then, by one thread.
  void tick();

 private:
  class Reader;

  const LiveSwitch* const live_;
  uint64_t end_ = 0;  // of the log, as the last tick has seen it
  CallList<Reader> calls_;
};

}  // namespace ofswitch
