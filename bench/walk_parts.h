// SPDX-License-Identifier: BSD-3-Clause
//
// Walks that make several copies of a packet or look it up several times,
// beside as many bare parts.
#pragma once

#include <benchmark/benchmark.h>

#include "bench/bench_rig.h"
#include "bench/measure.h"
#include "bench/traffic.h"

namespace bench {

// IPv4 packets of `flows` flows through the whole module, beside `lookups`
// times the key bytes and the classification of table 0, and `copies` copies of
// each packet.
inline void compareWalk(benchmark::State& state, uint32_t flows, int lookups,
                        int copies) {
  Rig* rig = &Rig::instance();
  const auto traffic = matchingFrames(kIpv4Only, flows);
  BareParts parts(kIpv4Only, 0);
  bess::PacketBatch batch;
  compare(
      state, kBurst, kCyclesAPacket,
      [&] {
        rig->fill(traffic, &batch);
        return rig->process(&batch);
      },
      [&] {
        rig->fill(traffic, &batch);
        parts.prepare(batch);
        const uint64_t taken = cycles([&] {
          for (int i = 0; i < lookups; i++) {
            parts.copyKeys();
            parts.classify();
          }
          for (int i = 0; i < copies; i++) BareParts::copyAndFree(batch);
        });
        bess::Packet::Free(&batch);
        return taken;
      });
}

}  // namespace bench
