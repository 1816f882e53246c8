// SPDX-License-Identifier: BSD-3-Clause
//
// A packet's cost in the module, in processor cycles, beside the sum of what
// the same work costs bare: key bytes copied, the classification, one packet
// allocated and copied, one freed.
//
// What the classification takes depends on where the keys and the classifier
// lie, which differs between the two sides. So it is taken out of what the
// module takes ("rest" remains), and both sides have the bare one instead.
// "whole" is what the module takes, its own classification included. Every
// second batch tells what the classification takes, and the others the whole:
// reading the clock in the middle costs several cycles a packet.
//
// "packets" is the bare sum with DPDK's own calls for packets in place of the
// least that a buffer and its copy can take, and "beside_packets" the ratio to
// that.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <rte_cycles.h>

#include "bench/bench_rig.h"
#include "bench/measure.h"
#include "bench/traffic.h"

namespace {

// Whether classifications are timed, and what they took since it was set to
// zero.
bool timeClassify = false;
uint64_t inClassify = 0;

}  // namespace

// The module finds this before the library's.
extern "C" int rte_acl_classify(const rte_acl_ctx* ctx, const uint8_t** data,
                                uint32_t* results, uint32_t num,
                                uint32_t categories) {
  static const auto classify = reinterpret_cast<decltype(&rte_acl_classify)>(
      dlsym(RTLD_NEXT, "rte_acl_classify"));
  if (!timeClassify) {
    return classify(ctx, data, results, num, categories);
  }
  const uint64_t start = rte_rdtsc_precise();
  const int rc = classify(ctx, data, results, num, categories);
  inClassify += rte_rdtsc_precise() - start;
  return rc;
}

namespace {

void processBatch(benchmark::State& state) {
  bench::Rig* rig = &bench::Rig::instance();
  const auto families = static_cast<int>(state.range(0));
  const auto flows = static_cast<uint32_t>(state.range(1));
  bench::loadFlows(rig, 0, families, flows);
  const auto traffic = bench::matchingFrames(families, flows);
  bench::BareParts parts(families, 0);
  bess::PacketBatch batch;
  std::vector<uint64_t> inModule, classify, packetCalls, leastCalls;
  bench::compare(
      state, bench::kBurst, bench::kCyclesAPacket,
      [&] {
        rig->fill(traffic, &batch);
        inClassify = 0;
        timeClassify = true;
        rig->process(&batch);
        timeClassify = false;
        inModule.push_back(inClassify);
        rig->fill(traffic, &batch);
        return rig->process(&batch);
      },
      [&] {
        rig->fill(traffic, &batch);
        parts.prepare(batch);
        inClassify = 0;
        const uint64_t rest = bench::cycles([&] { parts.copyKeys(); });
        timeClassify = true;
        parts.classify();
        timeClassify = false;
        classify.push_back(inClassify);
        const uint64_t least = bench::cycles([&] { parts.copyAndFree(batch); });
        leastCalls.push_back(least);
        packetCalls.push_back(
            bench::cycles([&] { parts.copyAndFreePackets(batch); }));
        bess::Packet::Free(&batch);
        return rest + least;
      });
  const double whole = state.counters["ours"];
  const double bareRest = state.counters["bare"];
  const double rest = whole - bench::quantile(&inModule, 0.5) / bench::kBurst;
  const double bareClassify = bench::quantile(&classify, 0.5) / bench::kBurst;
  bench::report(state, rest + bareClassify, bareRest + bareClassify,
                bench::kCyclesAPacket);
  const double packets =
      bareRest + bareClassify +
      (bench::quantile(&packetCalls, 0.5) - bench::quantile(&leastCalls, 0.5)) /
          bench::kBurst;
  state.counters["packets"] = packets;
  state.counters["beside_packets"] = (rest + bareClassify) / packets;
  state.counters["rest"] = rest;
  state.counters["classify"] = bareClassify;
  state.counters["whole"] = whole;
}
BENCHMARK(processBatch)
    ->ArgNames({"families", "flows"})
    ->ArgsProduct({{bench::kIpv4Only, bench::kIpv6Only, bench::kBoth},
                   {1, 100, 1000, 10000}})
    ->UseManualTime()
    ->MinTime(0.05);

}  // namespace
