// SPDX-License-Identifier: BSD-3-Clause
#include "switch/control/stream_call.h"

#include <utility>

#include "switch/control/call_status.h"

namespace ofswitch {

std::shared_ptr<StreamCall> StreamCall::start(WorkQueue* queue, Fill fill) {
  const std::shared_ptr<StreamCall> call(
      new StreamCall(queue, std::move(fill)));
  call->self_ = call;
  call->advance();
  return call;
}

void StreamCall::send(grpc::ByteBuffer message) {
  {
    const std::lock_guard lock(mutex_);
    if (isCancelled_) return;
    unsent_.push_back(std::move(message));
  }
  advance();
}

size_t StreamCall::unsent() const {
  const std::lock_guard lock(mutex_);
  return unsent_.size();
}

void StreamCall::wake() {
  {
    const std::lock_guard lock(mutex_);
    isWoken_ = true;
    if (more_ == More::kLater) more_ = More::kNow;
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
  self_.reset();
}

// Does what comes next. gRPC may answer in the midst of its functions, which
// are therefore called without the lock.
void StreamCall::advance() {
  std::unique_lock lock(mutex_);
  if (isSending_ || isFinished_) return;
  if (isCancelled_) {
    unsent_.clear();
    more_ = More::kNone;
    if (status_.ok()) {
      status_ = callStatus(grpc::StatusCode::CANCELLED, "cancelled");
    }
  }
  if (!unsent_.empty()) {
    sending_ = std::move(unsent_.front());
    unsent_.pop_front();
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
