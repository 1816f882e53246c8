// SPDX-License-Identifier: BSD-3-Clause
#include "switch/control/switch_service.h"

#include <chrono>
#include <memory>

#include "switch/control/message_codec.h"
#include "switch/control/stream_call.h"
#include "switch/control/unary_call.h"

namespace ofswitch {
namespace {

// How late a line of the log may come.
constexpr auto kTick = std::chrono::milliseconds(100);

using More = StreamCall::More;

// A client that is slow to read misses steps, not the reply.
pb::FlowChangeReply changeFlows(LiveSwitch* live, const pb::FlowChange& change,
                                StreamCall* call) {
  return live->changeFlows(change, [call](const pb::FlowProgress& progress) {
    if (call->isFull()) return;
    pb::FlowChangeEvent event;
    *event.mutable_progress() = progress;
    call->send(encode(event));
  });
}

}  // namespace

SwitchService::SwitchService(LiveSwitch* live, WorkQueue* commands,
                             WorkQueue* readers)
    : live_(live),
      commands_(commands),
      readers_(readers),
      listings_(live),
      followers_(live),
      ticker_(kTick, [this] {
        listings_.tick();
        followers_.tick();
      }) {}

SwitchService::StreamReactor* SwitchService::ChangeFlows(Context* context,
                                                         const Bytes* request) {
  const auto fill = [live = live_, request](StreamCall* call) {
    pb::FlowChange change;
    decode(*request, kLargeMessage, &change);
    pb::FlowChangeEvent event;
    *event.mutable_reply() = changeFlows(live, change, call);
    call->send(encode(event));
    return More::kNone;
  };
  return StreamCall::start(commands_, context, fill).get();
}

SwitchService::StreamReactor* SwitchService::DumpFlows(Context* context,
                                                       const Bytes* request) {
  return listings_.start(commands_, context, request).get();
}

SwitchService::UnaryReactor* SwitchService::GetTables(Context* context,
                                                      const Bytes* request,
                                                      Bytes* reply) {
  return answer<pb::TablesRequest>(
      commands_, context, request, reply,
      [live = live_](const auto& message) { return live->tables(message); });
}

SwitchService::UnaryReactor* SwitchService::GetPorts(Context* context,
                                                     const Bytes* request,
                                                     Bytes* reply) {
  return answer<pb::PortsRequest>(
      commands_, context, request, reply,
      [live = live_](const auto&) { return live->ports(); });
}

SwitchService::UnaryReactor* SwitchService::GetStats(Context* context,
                                                     const Bytes* request,
                                                     Bytes* reply) {
  return answer<pb::StatsRequest>(
      commands_, context, request, reply,
      [live = live_](const auto& message) { return live->stats(message); });
}

SwitchService::StreamReactor* SwitchService::ReadLog(Context* context,
                                                     const Bytes* request) {
  return followers_.start(readers_, context, request).get();
}

SwitchService::UnaryReactor* SwitchService::SetLogLevels(Context* context,
                                                         const Bytes* request,
                                                         Bytes* reply) {
  return answer<pb::LogLevels>(commands_, context, request, reply,
                               [live = live_](const auto& message) {
                                 return live->setLogLevels(message);
                               });
}

SwitchService::UnaryReactor* SwitchService::Trace(Context* context,
                                                  const Bytes* request,
                                                  Bytes* reply) {
  return answer<pb::TraceRequest>(
      commands_, context, request, reply,
      [live = live_](const auto& message) { return live->trace(message); });
}

}  // namespace ofswitch
