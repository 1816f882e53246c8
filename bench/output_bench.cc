// SPDX-License-Identifier: BSD-3-Clause
//
// A packet's output: its copy, sent through a gate and freed behind it, beside
// a buffer from the pool, the frame's bytes copied to it, and a buffer given
// back. Also what a packet costs that ends here, beside freeing it.
#include <benchmark/benchmark.h>

#include <cstring>

#include "bench/bench_rig.h"
#include "bench/measure.h"
#include "bench/traffic.h"

namespace {

// A burst of packets of `length` bytes.
void fill(bench::Rig* rig, uint16_t length, bess::PacketBatch* batch) {
  static const auto traffic = bench::matchingFrames(bench::kIpv4Only, 100);
  rig->fill(traffic, batch);
  for (int i = 0; i < bench::kBurst; i++) {
    batch->pkts()[i]->set_data_len(length);
    batch->pkts()[i]->set_total_len(length);
  }
}

void copyAndEmit(benchmark::State& state) {
  bench::Rig* rig = &bench::Rig::instance();
  const auto length = static_cast<uint16_t>(state.range(0));
  bess::PacketBatch batch;
  bench::compare(
      state, bench::kBurst, bench::kCyclesAPacket,
      [&] {
        fill(rig, length, &batch);
        rig->task()->StartRun(rig->context());
        const uint64_t taken = bench::cycles([&] {
          for (int i = 0; i < bench::kBurst; i++) {
            rig->module().EmitPacket(rig->context(),
                                     bess::Packet::copy(batch.pkts()[i]),
                                     bench::kOutputGate);
          }
          rig->task()->RunPending(rig->context());
        });
        bess::Packet::Free(&batch);
        return taken;
      },
      [&] {
        fill(rig, length, &batch);
        const uint64_t taken =
            bench::cycles([&] { bench::BareParts::copyAndFree(batch); });
        bess::Packet::Free(&batch);
        return taken;
      });
}
BENCHMARK(copyAndEmit)
    ->ArgName("bytes")
    ->Arg(64)
    ->Arg(128)
    ->Arg(512)
    ->Arg(1500)
    ->UseManualTime()
    ->MinTime(0.05);

void dropPacket(benchmark::State& state) {
  bench::Rig* rig = &bench::Rig::instance();
  bess::PacketBatch batch;
  bench::compare(
      state, bench::kBurst, bench::kCyclesAPacket,
      [&] {
        fill(rig, 64, &batch);
        rig->task()->StartRun(rig->context());
        return bench::cycles([&] {
          for (int i = 0; i < bench::kBurst; i++) {
            rig->module().DropPacket(rig->context(), batch.pkts()[i]);
          }
        });
      },
      [&] {
        fill(rig, 64, &batch);
        return bench::cycles([&] { bess::Packet::Free(&batch); });
      });
}
BENCHMARK(dropPacket)->UseManualTime()->MinTime(0.05);

}  // namespace
