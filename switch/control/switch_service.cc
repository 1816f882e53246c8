// SPDX-License-Identifier: BSD-3-Clause
#include "switch/control/switch_service.h"

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

#include "switch/control/message_codec.h"
#include "switch/control/stream_call.h"
#include "switch/control/unary_call.h"

namespace ofswitch {
namespace {

using More = StreamCall::More;

// Messages that wait for a client to read them; more are made when these are
// sent.
constexpr size_t kMessagesAhead = 256;

// A client that is slow to read misses steps, not the reply.
pb::FlowChangeReply changeFlows(LiveSwitch* live, const pb::FlowChange& change,
                                StreamCall* call) {
  return live->changeFlows(change, [call](const pb::FlowProgress& progress) {
    if (call->unsent() >= kMessagesAhead) return;
    pb::FlowChangeEvent event;
    *event.mutable_progress() = progress;
    call->send(encode(event));
  });
}

// The log as one client reads it.
class LogReader {
 public:
  LogReader(const LiveSwitch* live, LogFollowers::Position position)
      : live_(live), position_(std::move(position)) {}

  More fill(const grpc::ByteBuffer& bytes, StreamCall* call) {
    if (!hasBegun_) begin(bytes);
    const LiveSwitch::LogReading reading =
        live_->readLog(request_, kMessagesAhead);
    for (const pb::LogEntry& entry : reading.entries) {
      if (!request_.follow() && entry.position() >= end_) return More::kNone;
      call->send(encode(entry));
    }
    const bool isAtEnd = reading.next == request_.since();
    request_.set_since(reading.next);
    *position_ = reading.next;
    if (request_.follow()) return isAtEnd ? More::kLater : More::kNow;
    return isAtEnd || reading.next >= end_ ? More::kNone : More::kNow;
  }

 private:
  void begin(const grpc::ByteBuffer& bytes) {
    decode(bytes, kSmallMessage, &request_);
    const LiveSwitch::LogReading reading = live_->readLog(request_);
    end_ = reading.next;
    if (request_.last() > 0) {
      request_.set_since(
          reading.entries.empty() ? end_ : reading.entries.front().position());
      request_.clear_last();
    }
    hasBegun_ = true;
  }

  const LiveSwitch* const live_;
  const LogFollowers::Position position_;
  pb::LogRequest request_;
  uint64_t end_ = 0;
  bool hasBegun_ = false;
};

}  // namespace

SwitchService::StreamReactor* SwitchService::ChangeFlows(Context* /*context*/,
                                                         const Bytes* request) {
  const auto fill = [live = live_, request](StreamCall* call) {
    pb::FlowChange change;
    decode(*request, kLargeMessage, &change);
    pb::FlowChangeEvent event;
    *event.mutable_reply() = changeFlows(live, change, call);
    call->send(encode(event));
    return More::kNone;
  };
  return StreamCall::start(commands_, fill).get();
}

SwitchService::StreamReactor* SwitchService::DumpFlows(Context* /*context*/,
                                                       const Bytes* request) {
  const auto fill = [live = live_, request](StreamCall* call) {
    pb::FlowFilter filter;
    decode(*request, kSmallMessage, &filter);
    live->dumpFlows(filter, [call](const pb::FlowEntry& entry) {
      call->send(encode(entry));
      return true;
    });
    return More::kNone;
  };
  return StreamCall::start(commands_, fill).get();
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

SwitchService::StreamReactor* SwitchService::ReadLog(Context* /*context*/,
                                                     const Bytes* request) {
  const auto position = std::make_shared<std::atomic<uint64_t>>(0);
  const auto reader = std::make_shared<LogReader>(live_, position);
  const std::shared_ptr<StreamCall> call =
      StreamCall::start(readers_, [reader, request](StreamCall* stream) {
        return reader->fill(*request, stream);
      });
  followers_.add(call, position);
  return call.get();
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
                                                  const Bytes* /*request*/,
                                                  Bytes* /*reply*/) {
  grpc::ServerUnaryReactor* reactor = context->DefaultReactor();
  reactor->Finish({grpc::StatusCode::UNIMPLEMENTED,
                   "this switch does not explain packets"});
  return reactor;
}

}  // namespace ofswitch
