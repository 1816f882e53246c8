// SPDX-License-Identifier: BSD-3-Clause
#include "switch/control/log_followers.h"

#include <atomic>
#include <utility>

#include "switch/control/message_codec.h"

namespace ofswitch {
namespace {

using More = StreamCall::More;

constexpr size_t kEntriesAtOnce = 64;

}  // namespace

// The log as one client reads it.
class LogFollowers::Reader {
 public:
  explicit Reader(const LiveSwitch* live) : live_(live) {}

  More fill(const grpc::ByteBuffer& bytes, StreamCall* call) {
    if (!hasBegun_) begin(bytes);
    const uint64_t start = request_.since();
    const LiveSwitch::LogReading reading =
        live_->readLog(request_, kEntriesAtOnce);
    for (const pb::LogEntry& entry : reading.entries) {
      if (!request_.follow() && entry.position() >= end_) return More::kNone;
      call->send(encode(entry));
    }
    request_.set_since(reading.next);
    next_ = reading.next;
    const bool isAtEnd = reading.next == start;
    if (request_.follow()) return isAtEnd ? More::kLater : More::kNow;
    return isAtEnd || reading.next >= end_ ? More::kNone : More::kNow;
  }

  uint64_t next() const { return next_; }

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
  pb::LogRequest request_;
  uint64_t end_ = 0;  // of the log when the call came
  bool hasBegun_ = false;
  std::atomic<uint64_t> next_ = 0;
};

std::shared_ptr<StreamCall> LogFollowers::start(
    WorkQueue* queue, grpc::CallbackServerContext* context,
    const grpc::ByteBuffer* request) {
  return calls_.start(queue, context, request, std::make_shared<Reader>(live_));
}

void LogFollowers::tick() {
  const auto calls = calls_.alive();
  if (calls.empty()) return;
  pb::LogRequest news;
  news.set_since(end_);
  end_ = live_->readLog(news).next;
  for (const auto& [reader, call] : calls) {
    if (call != nullptr && reader->next() < end_) call->wake();
  }
}

}  // namespace ofswitch
