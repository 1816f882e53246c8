// SPDX-License-Identifier: BSD-3-Clause
#include "switch/control/log_followers.h"

#include <chrono>
#include <utility>

namespace ofswitch {
namespace {

// How late a line may come.
constexpr auto kTick = std::chrono::milliseconds(100);

}  // namespace

LogFollowers::LogFollowers(const LiveSwitch* live)
    : live_(live), thread_([this] { watch(); }) {}

LogFollowers::~LogFollowers() {
  {
    const std::lock_guard lock(mutex_);
    ending_ = true;
  }
  wake_.notify_all();
  thread_.join();
}

void LogFollowers::add(std::weak_ptr<StreamCall> call, Position position) {
  const std::lock_guard lock(mutex_);
  followers_.push_back({std::move(call), std::move(position)});
}

void LogFollowers::watch() {
  pb::LogRequest news;
  std::unique_lock lock(mutex_);
  while (!wake_.wait_for(lock, kTick, [this] { return ending_; })) {
    std::erase_if(followers_, [](const Follower& follower) {
      return follower.call.expired();
    });
    if (followers_.empty()) continue;
    lock.unlock();
    news.set_since(live_->readLog(news).next);
    wakeBehind(news.since());
    lock.lock();
  }
}

void LogFollowers::wakeBehind(uint64_t end) {
  std::vector<std::shared_ptr<StreamCall>> behind;
  {
    const std::lock_guard lock(mutex_);
    for (const Follower& follower : followers_) {
      if (follower.position->load() >= end) continue;
      if (auto call = follower.call.lock()) behind.push_back(std::move(call));
    }
  }
  for (const auto& call : behind) call->wake();
}

}  // namespace ofswitch
