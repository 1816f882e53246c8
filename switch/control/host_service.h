// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <grpcpp/grpcpp.h>

#include "service.grpc.pb.h"
#include "switch/control/work_queue.h"

namespace ofswitch {

using RawHostService = bess::pb::Host::WithRawCallbackMethod_ListModuleClasses<
    bess::pb::Host::WithRawCallbackMethod_ListPlugins<
        bess::pb::Host::WithRawCallbackMethod_ListModules<
            bess::pb::Host::WithRawCallbackMethod_GetModule<
                bess::pb::Host::WithRawCallbackMethod_ModuleCommand<
                    bess::pb::Host::WithRawCallbackMethod_ListPorts<
                        bess::pb::Host::WithRawCallbackMethod_ListWorkers<
                            bess::pb::Host::WithRawCallbackMethod_GetStatistics<
                                bess::pb::Host::Service>>>>>>>>;

// The service of the host behind the switch.
class HostService final : public RawHostService {
 public:
  // `commands` runs what waits for the command thread.
  explicit HostService(WorkQueue* commands) : commands_(commands) {}

  using Context = grpc::CallbackServerContext;
  using Bytes = grpc::ByteBuffer;
  using Reactor = grpc::ServerUnaryReactor;

  Reactor* ListModuleClasses(Context* context, const Bytes* request,
                             Bytes* reply) override;
  Reactor* ListPlugins(Context* context, const Bytes* request,
                       Bytes* reply) override;
  Reactor* ListModules(Context* context, const Bytes* request,
                       Bytes* reply) override;
  Reactor* GetModule(Context* context, const Bytes* request,
                     Bytes* reply) override;
  Reactor* ModuleCommand(Context* context, const Bytes* request,
                         Bytes* reply) override;
  Reactor* ListPorts(Context* context, const Bytes* request,
                     Bytes* reply) override;
  Reactor* ListWorkers(Context* context, const Bytes* request,
                       Bytes* reply) override;
  Reactor* GetStatistics(Context* context, const Bytes* request,
                         Bytes* reply) override;

 private:
  WorkQueue* const commands_;
};

}  // namespace ofswitch
