// SPDX-License-Identifier: BSD-3-Clause
//
// Chains of tables of 1,000 flows, each handing every packet on to the next,
// the last one sending it: a lookup and a copy a table.
#include "bench/walk_parts.h"

namespace {

constexpr uint32_t kFlows = 1000;

void chain(benchmark::State& state) {
  bench::Rig* rig = &bench::Rig::instance();
  const auto tables = static_cast<uint32_t>(state.range(0));
  for (uint32_t table = 0; table < tables; table++) {
    const bool last = table == tables - 1;
    bench::loadFlows(rig, table, bench::kIpv4Only, kFlows,
                     [&](quil::pb::OpenFlowAddFlow* flow) {
                       auto* action = flow->mutable_action();
                       action->mutable_fields()->set_setoutputport(last);
                       action->mutable_fields()->set_gototbl(!last);
                       action->mutable_values()->set_nexttbl(table + 1);
                     });
  }
  const auto steps = static_cast<int>(tables);
  bench::compareWalk(state, kFlows, steps, steps);
}
BENCHMARK(chain)
    ->ArgName("tables")
    ->Arg(1)
    ->Arg(2)
    ->Arg(3)
    ->Arg(8)
    ->UseManualTime()
    ->MinTime(0.05);

}  // namespace
