// SPDX-License-Identifier: BSD-3-Clause
#include "switch/control/host_service.h"

#include "switch/control/host_report.h"
#include "switch/control/message_codec.h"
#include "switch/control/module_command.h"
#include "switch/control/unary_call.h"

namespace ofswitch {

using bess::pb::EmptyArg;

HostService::Reactor* HostService::ListModuleClasses(Context* context,
                                                     const Bytes* request,
                                                     Bytes* reply) {
  return answer<EmptyArg>(commands_, context, request, reply,
                          [](const EmptyArg&) { return listModuleClasses(); });
}

HostService::Reactor* HostService::ListPlugins(Context* context,
                                               const Bytes* request,
                                               Bytes* reply) {
  return answer<EmptyArg>(commands_, context, request, reply,
                          [](const EmptyArg&) { return listPlugins(); });
}

HostService::Reactor* HostService::ListModules(Context* context,
                                               const Bytes* request,
                                               Bytes* reply) {
  return answer<EmptyArg>(commands_, context, request, reply,
                          [](const EmptyArg&) { return listModules(); });
}

HostService::Reactor* HostService::GetModule(Context* context,
                                             const Bytes* request,
                                             Bytes* reply) {
  return answer<bess::pb::GetModuleRequest>(commands_, context, request, reply,
                                            getModule);
}

HostService::Reactor* HostService::ModuleCommand(Context* context,
                                                 const Bytes* request,
                                                 Bytes* reply) {
  return answer<bess::pb::ModuleCommandRequest>(
      commands_, context, request, reply, runModuleCommand, kLargeMessage);
}

HostService::Reactor* HostService::ListPorts(Context* context,
                                             const Bytes* request,
                                             Bytes* reply) {
  return answer<EmptyArg>(commands_, context, request, reply,
                          [](const EmptyArg&) { return listPorts(); });
}

HostService::Reactor* HostService::ListWorkers(Context* context,
                                               const Bytes* request,
                                               Bytes* reply) {
  return answer<EmptyArg>(commands_, context, request, reply,
                          [](const EmptyArg&) { return listWorkers(); });
}

HostService::Reactor* HostService::GetStatistics(Context* context,
                                                 const Bytes* request,
                                                 Bytes* reply) {
  return answer<EmptyArg>(commands_, context, request, reply,
                          [](const EmptyArg&) { return getStatistics(); });
}

}  // namespace ofswitch
