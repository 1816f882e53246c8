// SPDX-License-Identifier: BSD-3-Clause
//
// What a packet takes of a worker's processor time when two workers run the
// same module, each with packets of its own, beside one worker alone: 1.00
// means that they do not hinder each other. "Mpps" is what all of them carry
// by the clock.
//
//   throughModule   each worker has a source in memory; a sink frees
//   sourceToSink    the same without the module: what the machine makes of two
//   overQueues      each worker receives from a queue of its own of one device
//                   and sends to one of its own; the device makes packets out
//                   of nothing
//   queueToQueue    the same without the module: what device and machine make
//                   of two; the device counts every burst with a locked
//                   addition, on cache lines that neighbouring queues share
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstring>
#include <ctime>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "bench/paced_source.h"
#include "bench/traffic.h"
#include "graph.h"
#include "pb/port_msg.pb.h"
#include "ports/port.h"
#include "worker.h"

namespace {

constexpr int kMostWorkers = 2;
constexpr uint32_t kFlows = 1000;
constexpr auto kTime = std::chrono::milliseconds(500);
constexpr uint16_t kPortGate = 20;  // the rig has sinks behind lower ones

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

void check(const CommandResponse& response) {
  check(response.error().errmsg());
}

// Starts worker `i` of those that are measured, for what `first` begins.
void addWorker(int i, Module* first) {
  const int wid = i + 1;  // the rig's thread is worker 0
  check(Worker::Add(wid, i));
  check(Worker::AttachTasks(first, wid));
}

struct Rate {
  double cost = 0;  // nanoseconds of processor time a packet
  double mpps = 0;
};

// Lets the workers run, and stops them. `packets` tells how many they have
// carried so far.
Rate runWorkers(const std::function<uint64_t()>& packets) {
  check(Worker::ResumeAll());
  std::this_thread::sleep_for(kTime / 5);  // until caches are warm
  const uint64_t firstPackets = packets();
  const uint64_t firstTime = processorTime();
  const auto start = std::chrono::steady_clock::now();
  std::this_thread::sleep_for(kTime);
  const auto carried = static_cast<double>(packets() - firstPackets);
  const auto used = static_cast<double>(processorTime() - firstTime);
  const std::chrono::duration<double, std::micro> passed =
      std::chrono::steady_clock::now() - start;
  Worker::StopAll();
  return {used / carried, carried / passed.count()};
}

// Each worker has a source, which leads to `next`.
Rate fromSources(Module* next, int workers) {
  std::vector<bench::PacedSource*> sources;
  for (int i = 0; i < workers; i++) {
    const std::string name = "source" + std::to_string(i);
    sources.push_back(bench::makeSource(name));
    sources[i]->setFrames(&bench::Rig::instance().pool(),
                          bench::matchingFrames(bench::kIpv4Only, kFlows));
    check(bess::ConnectModules(name, 0, next->name(), 100 + i));
    addWorker(i, sources[i]);
  }
  const Rate rate = runWorkers([&] {
    uint64_t sum = 0;
    for (const auto* source : sources) sum += source->packets();
    return sum;
  });
  for (auto* source : sources) check(bess::DestroyModule(source->name()));
  return rate;
}

// Puts matching frames into all buffers of the pool. The device leaves buffers
// as they are, so that these are what it receives, and the module's copies are
// frames of the same kind.
void fillBuffers(bess::PacketPool* pool) {
  const auto frames = bench::matchingFrames(bench::kIpv4Only, kFlows);
  std::vector<bess::Packet*> packets;
  while (bess::Packet* packet = pool->Alloc(sizeof(bench::FrameBytes))) {
    std::memcpy(packet->head_data<void*>(),
                frames[packets.size() % frames.size()].data(),
                sizeof(bench::FrameBytes));
    packets.push_back(packet);
  }
  for (bess::Packet* packet : packets) bess::Packet::Free(packet);
}

template <typename Arg>
Module* makePortModule(const char* className, const std::string& name,
                       const Arg& arg) {
  google::protobuf::Any any;
  any.PackFrom(arg);
  const bess::CreateResult made = bess::CreateModule(className, name, any);
  check(made.response);
  return made.module;
}

// Each worker has a queue of one device to receive from and one to send to,
// with `module` in between, if any.
Rate overDevice(Module* module, int workers) {
  bess::PacketPool* pool = &bench::Rig::instance().pool();
  fillBuffers(pool);
  const auto queues = static_cast<uint16_t>(workers);
  check(bess::OpenPort("null", {.device = "net_null0,size=64",
                                .number = 1,
                                .rx_queues = queues,
                                .tx_queues = queues,
                                .pool = pool}));
  const bess::Port* port = bess::FindPort("null");
  if (port->rx_queues() != queues || port->tx_queues() != queues) {
    bench::die("the device has not that many queues");
  }
  bess::pb::PortOutArg out;
  out.set_port("null");
  Module* sender = makePortModule("PortOut", "out", out);
  if (module != nullptr) {
    check(bess::ConnectModules(module->name(), kPortGate, "out", 0));
  }
  for (int i = 0; i < workers; i++) {
    const std::string name = "in" + std::to_string(i);
    bess::pb::PortInArg in;
    in.set_port("null");
    in.set_queue(static_cast<uint32_t>(i));
    Module* receiver = makePortModule("PortIn", name, in);
    Module* next = module != nullptr ? module : sender;
    check(bess::ConnectModules(name, 0, next->name(), 0));
    addWorker(i, receiver);
  }
  const Rate rate = runWorkers([&] { return port->stats().tx_packets; });
  const bess::PortStats stats = port->stats();
  if (stats.tx_packets != stats.rx_packets) bench::die("packets are missing");
  for (int i = 0; i < workers; i++) {
    check(bess::DestroyModule("in" + std::to_string(i)));
  }
  check(bess::DestroyModule("out"));
  check(bess::ClosePort("null"));
  return rate;
}

void compareWorkers(benchmark::State& state,
                    const std::function<Rate(int workers)>& measure) {
  const auto workers = static_cast<int>(state.range(0));
  for (auto _ : state) {
    const Rate one = measure(1);
    const Rate all = measure(workers);
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
  compareWorkers(
      state, [&](int workers) { return fromSources(&rig.module(), workers); });
}

void sourceToSink(benchmark::State& state) {
  compareWorkers(state, [](int workers) {
    return fromSources(&bench::Rig::instance().sink(), workers);
  });
}

void overQueues(benchmark::State& state) {
  bench::Rig& rig = bench::Rig::instance();
  bench::loadFlows(&rig, 0, bench::kIpv4Only, kFlows,
                   [](quil::pb::OpenFlowAddFlow* flow) {
                     auto* values = flow->mutable_action()->mutable_values();
                     values->set_ogate(0, kPortGate);
                   });
  compareWorkers(
      state, [&](int workers) { return overDevice(&rig.module(), workers); });
}

void queueToQueue(benchmark::State& state) {
  compareWorkers(state,
                 [](int workers) { return overDevice(nullptr, workers); });
}

void forWorkers(benchmark::internal::Benchmark* rows) {
  rows->ArgName("workers")
      ->DenseRange(1, kMostWorkers)
      ->Iterations(1)
      ->UseManualTime();
}
BENCHMARK(throughModule)->Apply(forWorkers);
BENCHMARK(sourceToSink)->Apply(forWorkers);
BENCHMARK(overQueues)->Apply(forWorkers);
BENCHMARK(queueToQueue)->Apply(forWorkers);

}  // namespace
