// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <grpcpp/grpcpp.h>

#include "switch.grpc.pb.h"
#include "switch/control/flow_listings.h"
#include "switch/control/log_followers.h"
#include "switch/control/ticker.h"
#include "switch/control/work_queue.h"
#include "switch/live/live_switch.h"

namespace ofswitch {

// Every method takes and gives bytes, so that requests are measured before
// they are parsed.
using RawSwitchService = pb::Switch::WithRawCallbackMethod_ChangeFlows<
    pb::Switch::WithRawCallbackMethod_DumpFlows<
        pb::Switch::WithRawCallbackMethod_GetTables<
            pb::Switch::WithRawCallbackMethod_GetPorts<
                pb::Switch::WithRawCallbackMethod_GetStats<
                    pb::Switch::WithRawCallbackMethod_ReadLog<
                        pb::Switch::WithRawCallbackMethod_SetLogLevels<
                            pb::Switch::WithRawCallbackMethod_Trace<
                                pb::Switch::Service>>>>>>>>;

// The switch's own service.
class SwitchService final : public RawSwitchService {
 public:
  // `commands` runs what waits for the command thread, `readers` what does not.
  SwitchService(LiveSwitch* live, WorkQueue* commands, WorkQueue* readers);

  using Context = grpc::CallbackServerContext;
  using Bytes = grpc::ByteBuffer;
  using StreamReactor = grpc::ServerWriteReactor<grpc::ByteBuffer>;
  using UnaryReactor = grpc::ServerUnaryReactor;

  StreamReactor* ChangeFlows(Context* context, const Bytes* request) override;
  StreamReactor* DumpFlows(Context* context, const Bytes* request) override;
  UnaryReactor* GetTables(Context* context, const Bytes* request,
                          Bytes* reply) override;
  UnaryReactor* GetPorts(Context* context, const Bytes* request,
                         Bytes* reply) override;
  UnaryReactor* GetStats(Context* context, const Bytes* request,
                         Bytes* reply) override;
  StreamReactor* ReadLog(Context* context, const Bytes* request) override;
  UnaryReactor* SetLogLevels(Context* context, const Bytes* request,
                             Bytes* reply) override;
  UnaryReactor* Trace(Context* context, const Bytes* request,
                      Bytes* reply) override;

 private:
  LiveSwitch* const live_;
  WorkQueue* const commands_;
  WorkQueue* const readers_;
  FlowListings listings_;
  LogFollowers followers_;
  Ticker ticker_;
};

}  // namespace ofswitch
