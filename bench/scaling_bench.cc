// SPDX-License-Identifier: BSD-3-Clause
//
// What a packet takes of a worker's processor time when two workers run the
// same module, each with packets of its own, beside one worker alone: 1.00
// means that they do not hinder each other. "Mpps" is what all of them carry
// by the clock. The workers without the module between source and sink show
// what the machine itself makes of two.
#include <benchmark/benchmark.h>

#include <chrono>
#include <ctime>
#include <string>
#include <thread>

#include "bench/paced_source.h"
#include "bench/traffic.h"
#include "graph.h"
#include "worker.h"

namespace {

constexpr int kMostWorkers = 2;
constexpr uint32_t kFlows = 1000;
constexpr auto kTime = std::chrono::milliseconds(500);

// Of the whole process, in nanoseconds; only the workers have anything to do.
uint64_t processorTime() {
  timespec now;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000000 +
         static_cast<uint64_t>(now.tv_nsec);
}

void check(const std::string& error) {
  if (!error.empty()) bench::die(error.c_str());
}

struct Rate {
  double cost = 0;  // nanoseconds of processor time a packet
  double mpps = 0;
};

// Lets workers run that each have a source, which leads to `next`.
Rate measure(Module* next, int workers) {
  bench::PacedSource* sources[kMostWorkers];
  for (int i = 0; i < workers; i++) {
    const std::string name = "source" + std::to_string(i);
    sources[i] = bench::makeSource(name);
    sources[i]->setFrames(&bench::Rig::instance().pool(),
                          bench::matchingFrames(bench::kIpv4Only, kFlows));
    bess::ConnectModules(name, 0, next->name(), 100 + i);
    const int wid = i + 1;  // the rig's thread is worker 0
    check(Worker::Add(wid, i));
    check(Worker::AttachTasks(sources[i], wid));
  }
  const auto packets = [&] {
    uint64_t sum = 0;
    for (int i = 0; i < workers; i++) sum += sources[i]->packets();
    return static_cast<double>(sum);
  };
  check(Worker::ResumeAll());
  std::this_thread::sleep_for(kTime / 5);  // until caches are warm
  const double firstPackets = packets();
  const uint64_t firstTime = processorTime();
  const auto start = std::chrono::steady_clock::now();
  std::this_thread::sleep_for(kTime);
  const double carried = packets() - firstPackets;
  const auto used = static_cast<double>(processorTime() - firstTime);
  const std::chrono::duration<double, std::micro> passed =
      std::chrono::steady_clock::now() - start;
  Worker::StopAll();
  for (int i = 0; i < workers; i++) bess::DestroyModule(sources[i]->name());
  return {used / carried, carried / passed.count()};
}

void compareWorkers(benchmark::State& state, Module* next) {
  const auto workers = static_cast<int>(state.range(0));
  for (auto _ : state) {
    const Rate one = measure(next, 1);
    const Rate all = measure(next, workers);
    bench::report(state, all.cost, one.cost, "ns/packet");
    state.counters["Mpps"] = all.mpps;
    state.counters["MppsOfOne"] = one.mpps;
    state.SetIterationTime(std::chrono::duration<double>(kTime).count());
    state.SetItemsProcessed(static_cast<int64_t>(
        all.mpps * 1e6 * std::chrono::duration<double>(kTime).count()));
  }
}

void throughModule(benchmark::State& state) {
  bench::Rig& rig = bench::Rig::instance();
  bench::loadFlows(&rig, 0, bench::kIpv4Only, kFlows);
  compareWorkers(state, &rig.module());
}
BENCHMARK(throughModule)
    ->ArgName("workers")
    ->DenseRange(1, kMostWorkers)
    ->Iterations(1)
    ->UseManualTime();

void sourceToSink(benchmark::State& state) {
  compareWorkers(state, &bench::Rig::instance().sink());
}
BENCHMARK(sourceToSink)
    ->ArgName("workers")
    ->DenseRange(1, kMostWorkers)
    ->Iterations(1)
    ->UseManualTime();

}  // namespace
