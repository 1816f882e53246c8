// SPDX-License-Identifier: BSD-3-Clause
//
// What a running switch is made of. Who calls LiveSwitch comes from any thread;
// here all but start(), stop() and change() is on the command thread.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "control.h"
#include "switch/live/accounting.h"
#include "switch/live/counter_pool.h"
#include "switch/live/flow_book.h"
#include "switch/live/flow_programmer.h"
#include "switch/live/flow_request.h"
#include "switch/live/live_switch.h"
#include "switch/live/retry.h"
#include "switch/live/switch_graph.h"
#include "switch/trace/packet_tracer.h"

namespace ofswitch {

class LiveSwitch::Impl {
 public:
  Impl(SwitchConfig config, Now now);

  // Runs `fn` on the command thread and hands its answer over.
  template <class Fn>
  static auto onControl(Fn fn) {
    using Answer = decltype(fn());
    if constexpr (std::is_void_v<Answer>) {
      bess::ControlThread::Instance().Run(fn);
    } else {
      Answer answer;
      bess::ControlThread::Instance().Run([&] { answer = fn(); });
      return answer;
    }
  }

  // From the caller's thread.
  void start(const std::function<bool()>& isCancelled);
  pb::StatsReply stop();
  pb::FlowChangeReply change(const pb::FlowChange& change,
                             const Progress& progress);
  SwitchPorts portNumbers() const;

  void expire();
  pb::TablesReply tables(bool all);
  pb::StatsReply stats(bool pause);
  std::optional<Reading> read(size_t mostFlows);
  pb::TraceReply trace(const TracedPacket& packet);

  const SwitchConfig config_;
  const Now now_;
  std::atomic<bool> running_ = false;        // any thread
  std::atomic<bool> isProgramming_ = false;  // any thread
  CounterPool counters_;
  FlowBook book_;
  std::unique_ptr<SwitchGraph> graph_;
  std::unique_ptr<FlowProgrammer> programmer_;  // while the switch runs
  std::vector<std::string> notes_;
  std::string captureError_;  // once it has stopped

 private:
  void loadFlows(const std::vector<Flow>& flows,
                 const std::function<bool()>& isCancelled);
  void program(FlowBook::Plan plan, const Progress& progress,
               pb::FlowChangeReply* reply);
  void make(const pb::FlowChange& change, const FlowRequest& request,
            const Progress& progress, pb::FlowChangeReply* reply);
  FlowBook::Plan planOf(const pb::FlowChange& change,
                        const FlowRequest& request);
  pb::StatsReply stats(const SwitchCounts& counts,
                       const SwitchAccount& account);
  TraceFlows tracedFlows() const;
  // The ticker's thread: expires flows.
  void tick();

  std::chrono::steady_clock::time_point started_;
  uint64_t changes_ = 0;
  uint64_t expiredIdle_ = 0;
  uint64_t expiredHard_ = 0;
  Retry expiry_;
  MissingPackets missing_;
  std::unique_ptr<PacketTracer> tracer_;  // from the first trace on
  pb::StatsReply final_;

  std::thread ticker_;
  std::mutex tickMutex_;
  std::condition_variable tickWake_;
  bool stopping_ = false;
};

}  // namespace ofswitch
