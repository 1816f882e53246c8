// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <grpcpp/grpcpp.h>

#include <deque>
#include <functional>
#include <memory>
#include <mutex>

#include "switch/control/work_queue.h"

namespace ofswitch {

// A call that is answered by a stream of messages.
//
// Messages are made a few at a time, and only when the client has taken those
// before: one that stops reading holds up neither a thread nor more memory
// than these few take.
class StreamCall final : public grpc::ServerWriteReactor<grpc::ByteBuffer> {
 public:
  enum class More {
    kNow,    // ask again as soon as these are sent
    kLater,  // ask again after wake()
    kNone,   // these were the last
  };

  // Makes messages with send(). Runs on a thread of `queue`, never twice at
  // once, not any more once the call is cancelled. What it throws ends the
  // call.
  using Fill = std::function<More(StreamCall* call)>;

  // Lives until the call is done, and as long as somebody holds it.
  static std::shared_ptr<StreamCall> start(WorkQueue* queue,
                                           grpc::CallbackServerContext* context,
                                           Fill fill);

  // For Fill alone.
  void send(grpc::ByteBuffer message);
  // Whether as much waits to be sent as should at a time.
  bool isFull() const;

  // There may be more now. Any thread.
  void wake();

  // Ends the call even if the client does not read. Any thread.
  void cancel();

  void OnWriteDone(bool ok) override;
  void OnCancel() override;
  void OnDone() override;

 private:
  StreamCall(WorkQueue* queue, grpc::CallbackServerContext* context, Fill fill)
      : queue_(queue), context_(context), fill_(std::move(fill)) {}

  void advance();
  void runFill();

  WorkQueue* const queue_;
  grpc::CallbackServerContext* const context_;  // until OnDone
  Fill fill_;
  bool hasPlace_ = false;
  std::shared_ptr<StreamCall> self_;  // until OnDone

  mutable std::mutex mutex_;
  std::deque<grpc::ByteBuffer> unsent_;
  size_t unsentBytes_ = 0;
  grpc::ByteBuffer sending_;
  grpc::Status status_;
  More more_ = More::kNow;
  bool isFilling_ = false;
  bool isWoken_ = false;  // while it was filling
  bool isSending_ = false;
  bool isBeingCancelled_ = false;  // the call must not end yet
  bool isCancelled_ = false;
  bool isFinished_ = false;
};

}  // namespace ofswitch
