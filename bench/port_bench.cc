// SPDX-License-Identifier: BSD-3-Clause
//
// What a packet costs between two ports, in processor cycles: received by
// PortIn, carried through one gate and sent by PortOut, beside bare calls of
// the same device for the same packets.
#include <benchmark/benchmark.h>
#include <rte_ethdev.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "bench/measure.h"
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

// The same bursts through bare calls and through the modules.
void portInToPortOut(benchmark::State& state) {
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
  uint64_t packets = 0;
  uint64_t before = port->stats().tx_packets;
  {
    bess::InlineWorker worker(0);
    Task* task = receiver->tasks().front().get();
    uint64_t bare = 0;
    bench::compare(
        state, kBurst, bench::kCyclesAPacket,
        [&] {
          return bench::cycles([&] {
            // As a worker does it, without the locks of an inline run.
            packets += task->RunOnce(worker.context()).packets;
          });
        },
        [&] {
          return bench::cycles([&] {
            rte_mbuf* mbufs[kBurst];
            const uint16_t count =
                rte_eth_rx_burst(port->id(), 0, mbufs, kBurst);
            bare += rte_eth_tx_burst(port->id(), 0, mbufs, count);
          });
        });
    Require(port->stats().tx_packets - before == packets,
            "packets are missing");
    benchmark::DoNotOptimize(bare);
  }
  bess::DestroyAllModules();
  bess::ClosePort("null");
}
BENCHMARK(portInToPortOut)->UseManualTime();

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  bench::startEal(256);
  benchmark::RunSpecifiedBenchmarks();
}
