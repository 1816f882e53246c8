// SPDX-License-Identifier: BSD-3-Clause
#include "switch/control/stream_call.h"

#include <utility>

#include "switch/control/call_status.h"

namespace ofswitch {

namespace {

// Sending and making of messages alternate, so that little waits; not so often
// that it costs.
constexpr size_t kBytesAhead = size_t{64} << 10;

}  // namespace

std::shared_ptr<StreamCall> StreamCall::start(
    WorkQueue* queue, grpc::CallbackServerContext* context, Fill fill) {
  const std::shared_ptr<StreamCall> call(
      new StreamCall(queue, context, std::move(fill)));
  call->self_ = call;
  call->hasPlace_ = queue->takePlace();
  if (!call->hasPlace_) {
    call->status_ = tooManyCalls();
    call->more_ = More::kNone;
  }
  call->advance();
  return call;
}

void StreamCall::send(grpc::ByteBuffer message) {
  {
    const std::lock_guard lock(mutex_);
    if (isCancelled_) return;
    unsentBytes_ += message.Length();
    unsent_.push_back(std::move(message));
  }
  advance();
}

bool StreamCall::isFull() const {
  const std::lock_guard lock(mutex_);
  return unsentBytes_ >= kBytesAhead || isCancelled_;
}

void StreamCall::wake() {
  {
    const std::lock_guard lock(mutex_);
    isWoken_ = true;
    if (more_ == More::kLater) more_ = More::kNow;
  }
  advance();
}

void StreamCall::cancel() {
  {
    const std::lock_guard lock(mutex_);
    if (isFinished_) return;
    isBeingCancelled_ = true;
  }
  context_->TryCancel();
  {
    const std::lock_guard lock(mutex_);
    isBeingCancelled_ = false;
  }
  advance();
}

void StreamCall::OnWriteDone(bool ok) {
  {
    const std::lock_guard lock(mutex_);
    isSending_ = false;
    if (!ok) isCancelled_ = true;
  }
  advance();
}

void StreamCall::OnCancel() {
  {
    const std::lock_guard lock(mutex_);
    isCancelled_ = true;
  }
  advance();
}

void StreamCall::OnDone() {
  // What `fill_` holds must not outlive the call because somebody holds it.
  fill_ = nullptr;
  if (hasPlace_) queue_->givePlaceBack();
  self_.reset();
}

// Does what comes next. gRPC may answer in the midst of its functions, which
// are therefore called without the lock.
void StreamCall::advance() {
  std::unique_lock lock(mutex_);
  if (isSending_ || isFinished_ || isBeingCancelled_) return;
  if (isCancelled_) {
    unsent_.clear();
    unsentBytes_ = 0;
    more_ = More::kNone;
    status_ = callStatus(grpc::StatusCode::CANCELLED, "cancelled");
  }
  if (!unsent_.empty()) {
    sending_ = std::move(unsent_.front());
    unsent_.pop_front();
    unsentBytes_ -= sending_.Length();
    isSending_ = true;
    lock.unlock();
    StartWrite(&sending_);
    return;
  }
  if (isFilling_) return;
  if (more_ == More::kNow) {
    isFilling_ = true;
    lock.unlock();
    queue_->add([call = self_] { call->runFill(); });
  } else if (more_ == More::kNone) {
    isFinished_ = true;
    const grpc::Status status = status_;
    lock.unlock();
    Finish(status);
  }
}

void StreamCall::runFill() {
  More more = More::kNone;
  grpc::Status status;
  bool isCancelled = false;
  {
    const std::lock_guard lock(mutex_);
    isCancelled = isCancelled_;
    isWoken_ = false;
  }
  if (!isCancelled) {
    try {
      more = fill_(this);
    } catch (...) {
      status = statusOf(std::current_exception());
    }
  }
  {
    const std::lock_guard lock(mutex_);
    isFilling_ = false;
    more_ = more == More::kLater && isWoken_ ? More::kNow : more;
    status_ = status;
  }
  advance();
}

}  // namespace ofswitch
