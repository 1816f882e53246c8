// SPDX-License-Identifier: BSD-3-Clause
//
// A packet's cost in the module, in processor cycles, beside the sum of what
// the same work costs bare: key bytes copied, the classification, one packet
// allocated and copied, one freed.
#include <benchmark/benchmark.h>
#include <rte_cycles.h>

#include <algorithm>
#include <cstring>

#include "bench/bench_rig.h"
#include "modules/openflow/datapath/build_key.h"
#include "modules/openflow/datapath/packet_metadata.h"

namespace {

bench::Rig& rig() {
  static auto* rig = new bench::Rig();
  return *rig;
}

enum Families { kIpv4Only = 0, kIpv6Only = 1, kBoth = 2 };

std::vector<bench::FrameBytes> frames(int families, uint32_t flows) {
  std::vector<bench::FrameBytes> made;
  const uint32_t count = std::max<uint32_t>(flows, 1) * 10;
  for (uint32_t i = 0; i < count; i++) {
    const uint32_t flow = (i * 2654435761u >> 4) % flows;
    const bool ipv6 = families == kIpv6Only || (families == kBoth && i % 2);
    made.push_back(
        ipv6 ? bench::ipv6Frame(bench::flowDst(flow), bench::flowPort(flow))
             : bench::ipv4Frame(bench::flowDst(flow) | (i & 0xff),
                                bench::flowPort(flow)));
  }
  return made;
}

void setUp(int families, uint32_t flows) {
  std::vector<quil::pb::OpenFlowAddFlow> v4, v6;
  for (uint32_t i = 0; i < flows; i++) {
    if (families != kIpv6Only) v4.push_back(bench::prefixPortFlow(i));
    if (families != kIpv4Only) v6.push_back(bench::prefixPortFlow6(i));
  }
  rig().bind(0);
  rig().setFlows(0, false, v4);
  rig().setFlows(0, true, v6);
}

// Median of the samples, in cycles a packet.
double perPacket(std::vector<uint64_t>* samples) {
  auto middle = samples->begin() + samples->size() / 2;
  std::nth_element(samples->begin(), middle, samples->end());
  return static_cast<double>(*middle) / bench::kBurst;
}

struct Bare {
  double classify;
  double rest;
};

// The same packets through the bare parts.
Bare measureBare(int families, const std::vector<bench::FrameBytes>& traffic) {
  static OfIpv4Key keys4[bench::kBurst], copied4[bench::kBurst];
  static OfIpv6Key keys6[bench::kBurst], copied6[bench::kBurst];
  const uint8_t *pointers4[bench::kBurst], *pointers6[bench::kBurst];
  uint32_t results[bench::kBurst];
  const rte_acl_ctx* acl4 = bench::Rig::classifier(0);
  const rte_acl_ctx* acl6 = bench::Rig::classifier(1);
  std::vector<uint64_t> classify, rest;
  bess::PacketBatch batch;
  for (int round = 0; round < 4000; round++) {
    rig().fill(traffic, &batch);
    for (int i = 0; i < bench::kBurst; i++) {
      const uint8_t* frame = batch.pkts()[i]->head_data<const uint8_t*>();
      uint8_t window[kFrameWindow] = {};
      std::memcpy(window, frame, sizeof(bench::FrameBytes));
      buildKeys<true, true>(window, 0, &keys4[i], &keys6[i]);
      pointers4[i] = reinterpret_cast<const uint8_t*>(&copied4[i]);
      pointers6[i] = reinterpret_cast<const uint8_t*>(&copied6[i]);
    }
    const uint64_t start = rte_rdtsc_precise();
    for (int i = 0; i < bench::kBurst; i++) {
      if (families != kIpv6Only) copied4[i] = keys4[i];
      if (families != kIpv4Only) copied6[i] = keys6[i];
    }
    benchmark::ClobberMemory();
    const uint64_t copied = rte_rdtsc_precise();
    if (acl4) rte_acl_classify(acl4, pointers4, results, bench::kBurst, 1);
    if (acl6) rte_acl_classify(acl6, pointers6, results, bench::kBurst, 1);
    const uint64_t classified = rte_rdtsc_precise();
    bess::Packet* copies[bench::kBurst];
    for (int i = 0; i < bench::kBurst; i++) {
      copies[i] = bess::Packet::copy(batch.pkts()[i]);
    }
    bess::Packet::Free(copies, bench::kBurst);
    const uint64_t done = rte_rdtsc_precise();
    bess::Packet::Free(&batch);
    classify.push_back(classified - copied);
    rest.push_back(copied - start + done - classified);
  }
  return {perPacket(&classify), perPacket(&rest)};
}

void BM_ProcessBatch(benchmark::State& state) {
  const auto families = static_cast<int>(state.range(0));
  const auto flows = static_cast<uint32_t>(state.range(1));
  setUp(families, flows);
  const auto traffic = frames(families, flows);
  bess::PacketBatch batch;
  std::vector<uint64_t> samples;
  const double hz = static_cast<double>(rte_get_tsc_hz());
  for (auto _ : state) {
    rig().fill(traffic, &batch);
    samples.push_back(rig().process(&batch));
    state.SetIterationTime(static_cast<double>(samples.back()) / hz);
  }
  const double ours = perPacket(&samples);
  const Bare bare = measureBare(families, traffic);
  state.SetItemsProcessed(state.iterations() * bench::kBurst);
  state.counters["cycles"] = ours;
  state.counters["classify"] = bare.classify;
  state.counters["bare"] = bare.classify + bare.rest;
  state.counters["ratio"] = ours / (bare.classify + bare.rest);
}
BENCHMARK(BM_ProcessBatch)
    ->ArgNames({"families", "flows"})
    ->ArgsProduct({{kIpv4Only, kIpv6Only, kBoth}, {1, 100, 1000}})
    ->UseManualTime()
    ->MinTime(0.2);

}  // namespace

BENCHMARK_MAIN();
