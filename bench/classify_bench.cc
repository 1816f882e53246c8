// SPDX-License-Identifier: BSD-3-Clause
//
// The lookup of a batch (keys, classification, the matched flows' actions)
// beside a bare classification of ready keys by the same classifier.
//
// "lookup" is among flows of a prefix and a port, by the number of flows and of
// packets in the batch; "kinds" among the flow sets of flow_sets.h, over IPv4.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "bench/bench_rig.h"
#include "bench/flow_frames.h"
#include "bench/flow_sets.h"
#include "bench/measure.h"
#include "bench/traffic.h"
#include "tests/support/openflow_peer.h"

namespace {

// The lookups of table 0 in the batch, an action a packet.
class Lookup {
 public:
  bess::PacketBatch* batch() { return &batch_; }
  uint64_t run() {
    OpenFlow& module = bench::Rig::instance().module();
    return bench::cycles(
        [&] { OpenFlowPeer::lookup(module, 0, tableBatches_, actions_); });
  }
  const OfFlowAction& action(int i) const { return *actions_[i]; }

 private:
  bess::PacketBatch batch_;
  bess::PacketBatch* tableBatches_[kNumTables] = {&batch_};
  const OfFlowAction* actions_[bench::kBurst];
};

void compareLookups(benchmark::State& state, int families, int burst,
                    const std::vector<bench::FrameBytes>& traffic) {
  bench::Rig* rig = &bench::Rig::instance();
  bench::BareParts parts(families, 0);
  Lookup lookup;
  bess::PacketBatch* batch = lookup.batch();
  bench::compare(
      state, burst, bench::kCyclesAPacket,
      [&] {
        rig->fill(traffic, batch);
        batch->set_cnt(burst);
        const uint64_t taken = lookup.run();
        batch->set_cnt(bench::kBurst);
        bess::Packet::Free(batch);
        return taken;
      },
      [&] {
        rig->fill(traffic, batch);
        parts.prepare(*batch);
        parts.copyKeys();
        const uint64_t taken = bench::cycles(
            [&] { parts.classify(static_cast<uint32_t>(burst)); });
        bess::Packet::Free(batch);
        return taken;
      });
}

void lookup(benchmark::State& state) {
  bench::Rig* rig = &bench::Rig::instance();
  const auto families = static_cast<int>(state.range(0));
  const auto flows = static_cast<uint32_t>(state.range(1));
  bench::loadFlows(rig, 0, families, flows);
  compareLookups(state, families, static_cast<int>(state.range(2)),
                 bench::matchingFrames(families, flows));
}
BENCHMARK(lookup)
    ->ArgNames({"families", "flows", "burst"})
    ->ArgsProduct({{bench::kIpv4Only, bench::kIpv6Only, bench::kBoth},
                   {1, 1000, 10000},
                   {bench::kBurst}})
    ->ArgsProduct({{bench::kIpv4Only}, {1000}, {1, 15, 16, 31}})
    ->UseManualTime()
    ->MinTime(0.05);

// Ends the program when one of the frames matches no flow.
void requireMatches(const std::vector<bench::FrameBytes>& traffic) {
  Lookup lookup;
  for (size_t at = 0; at < traffic.size(); at += bench::kBurst) {
    bench::Rig::instance().fill(traffic, lookup.batch());
    lookup.run();
    for (int i = 0; i < bench::kBurst; i++) {
      if (lookup.action(i).priority == 0) bench::die("a frame has no match");
    }
    bess::Packet::Free(lookup.batch());
  }
}

void kinds(benchmark::State& state, const bench::FlowKind& kind) {
  bench::Rig* rig = &bench::Rig::instance();
  const auto flows =
      bench::makeFlows(kind, static_cast<uint32_t>(state.range(0)));
  rig->bind(0);
  rig->setFlows(0, true, {});
  rig->setFlows(0, false, flows);
  const auto traffic = bench::framesOf(flows);
  requireMatches(traffic);
  compareLookups(state, bench::kIpv4Only, bench::kBurst, traffic);
}

// A fixed number of rounds, so that each set is built only once. 10,000
// firewall-like flows take more than 2 GB to build.
void registerKinds() {
  const auto add = [](const char* name, int flows) {
    benchmark::RegisterBenchmark((std::string("kinds/") + name).c_str(),
                                 [name](benchmark::State& state) {
                                   kinds(state, bench::flowKind(name));
                                 })
        ->ArgName("flows")
        ->Arg(flows)
        ->Iterations(20000)
        ->UseManualTime();
  };
  for (const char* name : {"acl", "firewall", "ipc", "mixed"}) add(name, 1000);
  for (const char* name : {"acl", "ipc", "mixed"}) add(name, 10000);
}
const bool registered = (registerKinds(), true);

}  // namespace
