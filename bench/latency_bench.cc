// SPDX-License-Identifier: BSD-3-Clause
//
// How long a packet is in the switch at a tenth of the peak rate: from the time
// at which it is due at a worker's source until it is behind the output gate,
// beside the same without the module. The worker is on processor 1, before all
// others there if it may; updates, if any, are built one after the other on
// processor 0.
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <iterator>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "bench/paced_source.h"
#include "bench/traffic.h"
#include "control.h"
#include "graph.h"
#include "worker.h"

namespace {

constexpr int kWorker = 1;  // the rig's thread is worker 0
constexpr int kWorkerCore = 1;
constexpr int kCommandCore = 0;
constexpr uint32_t kFlows = 1000;

// On a shared machine a worker is interrupted all the same, for up to
// milliseconds. Each quantile is that of the window in which it is lowest.
constexpr int kWindows = 24;
constexpr auto kWindow = std::chrono::milliseconds(40);

constexpr double kQuantiles[] = {0.5, 0.99, 0.999};
using Quantiles = std::array<double, std::size(kQuantiles)>;

void check(const std::string& error) {
  if (!error.empty()) bench::die(error.c_str());
}

void check(const CommandResponse& response) {
  check(response.error().errmsg());
}

// Source, module and sink, and who runs them.
class Path {
 public:
  static Path& instance() {
    static auto* path = new Path;
    return *path;
  }

  // Leads packets through the module, or past it. While paused.
  void lead(bool throughModule) {
    if (linked_) check(bess::DisconnectModules("source", 0));
    check(throughModule
              ? bess::ConnectModules("source", 0, rig_.module().name(), 0)
              : bess::ConnectModules("source", 0, "sink", 1));
    linked_ = true;
  }

  // Processor cycles from packet to packet at the peak rate.
  uint64_t peakGap() {
    uint64_t least = std::numeric_limits<uint64_t>::max();
    for (int i = 0; i < kWindows; i++) {
      const uint64_t before = source_->packets();
      const uint64_t cycles = bench::cycles([&] { runWindow(0, [] {}); });
      const uint64_t packets = source_->packets() - before;
      if (packets > 0) least = std::min(least, cycles / packets);
    }
    return least;
  }

  // Sends a packet every `gap` cycles. Answers how long they took, in
  // nanoseconds.
  template <typename Meanwhile>
  Quantiles run(uint64_t gap, Meanwhile meanwhile) {
    Quantiles lowest;
    lowest.fill(std::numeric_limits<double>::max());
    for (int i = 0; i < kWindows; i++) {
      auto cycles = runWindow(gap, meanwhile);
      for (size_t q = 0; q < lowest.size() && !cycles.empty(); q++) {
        lowest[q] =
            std::min(lowest[q], bench::quantile(&cycles, kQuantiles[q]) * 1e9 /
                                    static_cast<double>(rte_get_tsc_hz()));
      }
    }
    return lowest;
  }

  // One flow replaced by itself, which builds the whole classifier.
  void update() {
    quil::pb::OpenFlowUpdateFlowsArg arg;
    *arg.add_adds() = bench::prefixPortFlow(0);
    google::protobuf::Any any;
    any.PackFrom(arg);
    check(bess::RunModuleCommand(rig_.module().name(), "updateFlows", any));
  }

 private:
  template <typename Meanwhile>
  std::vector<uint64_t> runWindow(uint64_t gap, Meanwhile meanwhile) {
    source_->setGap(gap);
    check(Worker::ResumeAll());
    const auto end = std::chrono::steady_clock::now() + kWindow;
    while (std::chrono::steady_clock::now() < end) {
      meanwhile();
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    Worker::PauseAll();
    return sink_->take();
  }

  Path()
      : rig_(bench::Rig::instance()),
        source_(bench::makeSource("source")),
        sink_(bench::makeTimingSink("sink")) {
    bench::loadFlows(&rig_, 0, bench::kIpv4Only, kFlows);
    source_->setFrames(&rig_.pool(),
                       bench::matchingFrames(bench::kIpv4Only, kFlows));
    source_->goFirst();
    const std::string& module = rig_.module().name();
    check(bess::DisconnectModules(module, bench::kOutputGate));
    check(bess::ConnectModules(module, bench::kOutputGate, "sink", 0));
    check(Worker::Add(kWorker, kWorkerCore));
    check(Worker::AttachTasks(source_, kWorker));
    bess::ControlThread::Instance().Run([] {
      cpu_set_t cpus;
      CPU_ZERO(&cpus);
      CPU_SET(kCommandCore, &cpus);
      pthread_setaffinity_np(pthread_self(), sizeof(cpus), &cpus);
    });
  }

  bench::Rig& rig_;
  bench::PacedSource* source_;
  bench::TimingSink* sink_;
  bool linked_ = false;
};

void atATenthOfPeak(benchmark::State& state) {
  Path& path = Path::instance();
  const bool updating = state.range(0) != 0;
  for (auto _ : state) {
    path.lead(true);
    const uint64_t gap = 10 * path.peakGap();
    int updates = 0;
    const auto meanwhile = [&] {
      if (updating) {
        path.update();
        updates++;
      }
    };
    const Quantiles ours = path.run(gap, meanwhile);
    path.lead(false);
    const Quantiles bare = path.run(gap, meanwhile);
    bench::report(state, ours[0], bare[0], "ns, median");
    state.counters["p99"] = ours[1];
    state.counters["p99.9"] = ours[2];
    state.counters["bare_p99"] = bare[1];
    state.counters["bare_p99.9"] = bare[2];
    state.counters["updates"] = updates;
    const double seconds = std::chrono::duration<double>(kWindow).count();
    state.SetIterationTime(seconds * kWindows);
    state.counters["cycles/packet"] = static_cast<double>(gap);
    state.SetItemsProcessed(static_cast<int64_t>(
        seconds * kWindows * static_cast<double>(rte_get_tsc_hz()) /
        static_cast<double>(gap)));
  }
}
BENCHMARK(atATenthOfPeak)
    ->ArgName("updates")
    ->DenseRange(0, 1)
    ->Iterations(1)
    ->UseManualTime();

}  // namespace
