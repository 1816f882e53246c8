// SPDX-License-Identifier: BSD-3-Clause
//
// What a packet costs between two ports, in processor cycles: received by
// PortIn, carried through one gate and sent by PortOut, beside bare calls of
// the same device for the same packets.
#include <benchmark/benchmark.h>
#include <rte_cycles.h>
#include <rte_ethdev.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "eal.h"
#include "graph.h"
#include "inline_worker.h"
#include "modules/port_in.h"
#include "modules/port_out.h"
#include "packet_pool.h"
#include "ports/port.h"

namespace {

constexpr uint16_t kBurst = bess::PacketBatch::kMaxBurst;

void Require(bool good, const std::string& what) {
  if (!good) {
    fprintf(stderr, "%s\n", what.c_str());
    exit(1);
  }
}

// The device makes packets out of nothing and takes all there are.
const bess::Port* NullPort() {
  const std::string error =
      bess::OpenPort("null", {.device = "net_null0,size=64", .number = 1});
  Require(error.empty(), error);
  return bess::FindPort("null");
}

// Repeats `burst`, which answers how many packets it carried. The cycles are
// the median burst's: other programs use the processor, too.
template <typename F>
uint64_t Measure(benchmark::State& state, F burst) {
  std::vector<uint64_t> cycles;
  cycles.reserve(state.max_iterations);
  uint64_t packets = 0;
  for (auto _ : state) {
    const uint64_t start = rte_rdtsc();
    packets += burst();
    cycles.push_back(rte_rdtsc() - start);
  }
  const auto middle = cycles.begin() + static_cast<long>(cycles.size() / 2);
  std::nth_element(cycles.begin(), middle, cycles.end());
  state.SetItemsProcessed(static_cast<int64_t>(packets));
  state.counters["cycles/packet"] = static_cast<double>(*middle) / kBurst;
  return packets;
}

void BM_BareDevice(benchmark::State& state) {
  const bess::Port* port = NullPort();
  {
    const bess::InlineWorker worker(0);
    Measure(state, [&] {
      rte_mbuf* mbufs[kBurst];
      const uint16_t count = rte_eth_rx_burst(port->id(), 0, mbufs, kBurst);
      return rte_eth_tx_burst(port->id(), 0, mbufs, count);
    });
  }
  bess::ClosePort("null");
}
BENCHMARK(BM_BareDevice);

void BM_PortInToPortOut(benchmark::State& state) {
  const bess::Port* port = NullPort();
  bess::pb::PortInArg in;
  in.set_port("null");
  google::protobuf::Any arg;
  arg.PackFrom(in);
  Module* receiver = bess::CreateModule("PortIn", "in", arg).module;
  bess::pb::PortOutArg out;
  out.set_port("null");
  arg.PackFrom(out);
  Require(receiver != nullptr &&
              bess::CreateModule("PortOut", "out", arg).module != nullptr,
          "no modules");
  bess::ConnectModules("in", 0, "out", 0);
  {
    bess::InlineWorker worker(0);
    Task* task = receiver->tasks().front().get();
    const uint64_t packets = Measure(state, [&] {
      // As a worker does it, without the locks of an inline run.
      return task->RunOnce(worker.context()).packets;
    });
    Require(port->stats().tx_packets == packets, "packets are missing");
  }
  bess::DestroyAllModules();
  bess::ClosePort("null");
}
BENCHMARK(BM_PortInToPortOut);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  const std::string error = bess::InitEal({.memory_mb = 256});
  Require(error.empty(), error);
  benchmark::RunSpecifiedBenchmarks();
}
