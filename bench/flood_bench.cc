// SPDX-License-Identifier: BSD-3-Clause
//
// Packets that leave through several gates, and ones that leave through none: a
// copy for each gate, and what enters is freed.
#include "bench/walk_parts.h"

namespace {

constexpr uint32_t kFlows = 100;

void flood(benchmark::State& state) {
  bench::Rig* rig = &bench::Rig::instance();
  const auto gates = static_cast<uint32_t>(state.range(0));
  bench::loadFlows(rig, 0, bench::kIpv4Only, kFlows,
                   [&](quil::pb::OpenFlowAddFlow* flow) {
                     auto* action = flow->mutable_action();
                     action->mutable_fields()->set_setoutputport(false);
                     action->mutable_fields()->set_setoutputflood(true);
                     action->mutable_values()->clear_ogate();
                     for (uint32_t gate = 1; gate <= gates; gate++) {
                       action->mutable_values()->add_ogate(gate);
                     }
                   });
  bench::compareWalk(state, kFlows, 1, static_cast<int>(gates));
}
BENCHMARK(flood)
    ->ArgName("gates")
    ->Arg(1)
    ->Arg(3)
    ->Arg(8)
    ->UseManualTime()
    ->MinTime(0.05);

}  // namespace
