// SPDX-License-Identifier: BSD-3-Clause
#include "switch/client/change_call.h"

#include <fmt/format.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "switch/terminal/amounts.h"
#include "switch/terminal/progress.h"

namespace ofswitch {
namespace {

// Redraws the bar also while the switch is silent.
class TickingProgress {
 public:
  TickingProgress() : thread_([this] { tick(); }) {}
  ~TickingProgress() {
    {
      const std::lock_guard lock(mutex_);
      ending_ = true;
    }
    wake_.notify_all();
    thread_.join();
  }
  TickingProgress(const TickingProgress&) = delete;
  TickingProgress& operator=(const TickingProgress&) = delete;

  void show(const pb::FlowProgress& progress) {
    const std::lock_guard lock(mutex_);
    done_ = progress.done();
    total_ = progress.total();
  }

 private:
  void tick() {
    constexpr auto kInterval = std::chrono::milliseconds(200);
    Progress bar("changing flows");
    std::unique_lock lock(mutex_);
    while (!wake_.wait_for(lock, kInterval, [this] { return ending_; })) {
      bar.show(done_, total_);
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  uint64_t done_ = 0;
  uint64_t total_ = 0;
  bool ending_ = false;
  std::thread thread_;
};

std::string buildText(const pb::Build& build) {
  std::string text =
      fmt::format("  table {} {}: {} ({}, {}), {}", build.table(),
                  build.ipv6() ? "IPv6" : "IPv4", plural(build.flows(), "rule"),
                  plural(build.adds(), "add"),
                  plural(build.deletes(), "delete"), timeText(build.time_ns()));
  if (build.is_inverse()) text += ", undoing an earlier one";
  if (!build.failure().empty()) text += ", failed: " + build.failure();
  return text + "\n";
}

}  // namespace

pb::FlowChangeReply changeFlows(SwitchClient* client, pb::FlowChange change) {
  change.set_progress(true);
  TickingProgress progress;
  grpc::ClientContext context;
  const auto reader = client->stub().ChangeFlows(&context, change);
  pb::FlowChangeEvent event;
  pb::FlowChangeReply reply;
  bool isAnswered = false;
  while (reader->Read(&event)) {
    if (event.has_progress()) progress.show(event.progress());
    if (event.has_reply()) {
      reply = std::move(*event.mutable_reply());
      isAnswered = true;
    }
  }
  client->check(reader->Finish());
  if (!isAnswered) throw ClientError("the switch hung up without an answer");
  return reply;
}

std::string changeText(const pb::FlowChangeReply& reply, bool everyBuild) {
  std::string text = fmt::format(
      "flows: {} added, {} changed, {} removed, {} unchanged\n", reply.added(),
      reply.changed(), reply.removed(), reply.unchanged());
  const auto builds = static_cast<uint64_t>(reply.builds_size());
  if (builds == 0) {
    text +=
        fmt::format("no build, {} in all\n", timeText(reply.total_time_ns()));
    return text;
  }
  text += fmt::format("{} in {}, {} in all\n", plural(builds, "build"),
                      timeText(reply.build_time_ns()),
                      timeText(reply.total_time_ns()));
  if (everyBuild) {
    for (const pb::Build& build : reply.builds()) text += buildText(build);
  }
  return text;
}

}  // namespace ofswitch
