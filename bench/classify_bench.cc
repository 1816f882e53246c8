// SPDX-License-Identifier: BSD-3-Clause
//
// The lookup of a batch (keys, classification, the matched flows' actions)
// beside a bare classification of ready keys, by the number of flows and of
// packets.
#include <benchmark/benchmark.h>

#include "bench/bench_rig.h"
#include "bench/measure.h"
#include "bench/traffic.h"
#include "tests/support/openflow_peer.h"

namespace {

void lookup(benchmark::State& state) {
  bench::Rig* rig = &bench::Rig::instance();
  const auto families = static_cast<int>(state.range(0));
  const auto flows = static_cast<uint32_t>(state.range(1));
  const auto burst = static_cast<int>(state.range(2));
  bench::loadFlows(rig, 0, families, flows);
  const auto traffic = bench::matchingFrames(families, flows);
  bench::BareParts parts(families, 0);
  bess::PacketBatch batch;
  bess::PacketBatch* tableBatches[kNumTables] = {&batch};
  const OfFlowAction* actions[bench::kBurst];
  bench::compare(
      state, burst, bench::kCyclesAPacket,
      [&] {
        rig->fill(traffic, &batch);
        batch.set_cnt(burst);
        const uint64_t taken = bench::cycles([&] {
          OpenFlowPeer::lookup(rig->module(), 0, tableBatches, actions);
        });
        batch.set_cnt(bench::kBurst);
        bess::Packet::Free(&batch);
        return taken;
      },
      [&] {
        rig->fill(traffic, &batch);
        parts.prepare(batch);
        parts.copyKeys();
        const uint64_t taken = bench::cycles(
            [&] { parts.classify(static_cast<uint32_t>(burst)); });
        bess::Packet::Free(&batch);
        return taken;
      });
}
BENCHMARK(lookup)
    ->ArgNames({"families", "flows", "burst"})
    ->ArgsProduct({{bench::kIpv4Only, bench::kIpv6Only, bench::kBoth},
                   {1, 1000, 10000},
                   {bench::kBurst}})
    ->ArgsProduct({{bench::kIpv4Only}, {1000}, {1, 15, 16, 31}})
    ->UseManualTime()
    ->MinTime(0.05);

}  // namespace
