// SPDX-License-Identifier: BSD-3-Clause
//
// Lookup keys made from frames, beside copies of ready keys: the bytes must be
// written in any case.
#include <benchmark/benchmark.h>

#include "bench/bench_rig.h"
#include "bench/measure.h"
#include "bench/traffic.h"
#include "modules/openflow/datapath/packet_metadata.h"

namespace {

template <bool kIpv4, bool kIpv6>
void buildBatch(const bess::PacketBatch& batch, OfIpv4Key* ipv4,
                OfIpv6Key* ipv6) {
  uint8_t room[kFrameWindow];
  for (int i = 0; i < bench::kBurst; i++) {
    const bess::Packet& packet = *batch.pkts()[i];
    buildKeys<kIpv4, kIpv6>(frameWindow(packet, room),
                            flowMetadata(*packetMetadata(&packet)), &ipv4[i],
                            &ipv6[i]);
  }
  benchmark::ClobberMemory();
}

void keys(benchmark::State& state) {
  bench::Rig* rig = &bench::Rig::instance();
  const auto families = static_cast<int>(state.range(0));
  const auto traffic = bench::matchingFrames(families, 100);
  bench::BareParts parts(families, 0);
  bess::PacketBatch batch;
  static OfIpv4Key ipv4[bench::kBurst];
  static OfIpv6Key ipv6[bench::kBurst];
  bench::compare(
      state, bench::kBurst, bench::kCyclesAPacket,
      [&] {
        rig->fill(traffic, &batch);
        const uint64_t taken = bench::cycles([&] {
          switch (families) {
            case bench::kIpv4Only:
              return buildBatch<true, false>(batch, ipv4, ipv6);
            case bench::kIpv6Only:
              return buildBatch<false, true>(batch, ipv4, ipv6);
            default:
              return buildBatch<true, true>(batch, ipv4, ipv6);
          }
        });
        bess::Packet::Free(&batch);
        return taken;
      },
      [&] {
        rig->fill(traffic, &batch);
        parts.prepare(batch);
        const uint64_t taken = bench::cycles([&] { parts.copyKeys(); });
        bess::Packet::Free(&batch);
        return taken;
      });
}
BENCHMARK(keys)
    ->ArgName("families")
    ->DenseRange(bench::kIpv4Only, bench::kBoth)
    ->UseManualTime()
    ->MinTime(0.05);

}  // namespace
