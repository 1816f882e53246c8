// SPDX-License-Identifier: BSD-3-Clause
#include "switch/control/flow_listings.h"

#include <atomic>
#include <chrono>
#include <optional>
#include <utility>
#include <vector>

#include "switch/control/message_codec.h"

namespace ofswitch {
namespace {

using Clock = std::chrono::steady_clock;
using More = StreamCall::More;

}  // namespace

// One client's listing. The atomic members are for others to see.
class FlowListings::Reader {
 public:
  explicit Reader(FlowListings* listings) : listings_(listings) {}

  More fill(const grpc::ByteBuffer& request, StreamCall* call) {
    if (!hasBegun_) {
      isWaiting_ = listings_->isFull();
      if (isWaiting_) return More::kLater;
      pb::FlowFilter filter;
      decode(request, kSmallMessage, &filter);
      listing_ = listings_->live_->listFlows(filter);
      hasBegun_ = true;
    }
    More more = More::kNow;
    while (more == More::kNow && !call->isFull()) {
      if (const std::optional<pb::FlowEntry> entry = listing_.next()) {
        call->send(encode(*entry));
      } else {
        more = More::kNone;
      }
    }
    lastSent_ = Clock::now();  // first: who has flows left may be resting
    left_ = listing_.left();
    return more;
  }

  bool isWaiting() const { return isWaiting_; }
  size_t left() const { return left_; }
  bool rests() const {
    return left_ > 0 &&
           Clock::now() - lastSent_.load() > listings_->longestRest_;
  }

 private:
  FlowListings* const listings_;
  FlowListing listing_;
  bool hasBegun_ = false;
  std::atomic<bool> isWaiting_ = false;
  std::atomic<size_t> left_ = 0;
  std::atomic<Clock::time_point> lastSent_{};
};

std::shared_ptr<StreamCall> FlowListings::start(
    WorkQueue* queue, grpc::CallbackServerContext* context,
    const grpc::ByteBuffer* request) {
  return calls_.start(queue, context, request, std::make_shared<Reader>(this));
}

void FlowListings::tick() {
  std::vector<std::shared_ptr<StreamCall>> waiting;
  std::vector<std::shared_ptr<StreamCall>> resting;
  for (auto& [reader, call] : calls_.alive()) {
    if (call == nullptr) continue;
    if (reader->isWaiting()) {
      waiting.push_back(std::move(call));
    } else if (reader->rests()) {
      resting.push_back(std::move(call));
    }
  }
  if (waiting.empty()) return;
  if (isFull()) {
    for (const auto& call : resting) call->cancel();
  } else {
    for (const auto& call : waiting) call->wake();
  }
}

bool FlowListings::isFull() {
  size_t kept = 0;
  for (const auto& entry : calls_.alive()) kept += entry.reader->left();
  return kept >= mostFlows_;
}

}  // namespace ofswitch
