// SPDX-License-Identifier: BSD-3-Clause
//
// Ours beside the bare cost of the same work, in one run and in turns, so that
// both meet the same machine.
#pragma once

#include <benchmark/benchmark.h>
#include <rte_cycles.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace bench {

// Starts DPDK with `memoryMb`; from hugepages when the environment variable
// OPENFLOW_BENCH_HUGEPAGES is set, with vectors of at most
// OPENFLOW_BENCH_SIMD_BITS (128, 256 or 512) when that is. Ends the program
// when it cannot.
void startEal(size_t memoryMb = 1024);

// Ends the program with a message.
[[noreturn]] void die(const char* what);

// The processor cycles that `work` takes.
template <typename Work>
uint64_t cycles(Work work) {
  const uint64_t start = rte_rdtsc_precise();
  work();
  return rte_rdtsc_precise() - start;
}

// The sample below which the given share of them lies. Orders the samples.
inline double quantile(std::vector<uint64_t>* samples, double share) {
  if (samples->empty()) return 0;
  const auto at = samples->begin() +
                  static_cast<ptrdiff_t>(
                      share * static_cast<double>(samples->size() - 1) + 0.5);
  std::nth_element(samples->begin(), at, samples->end());
  return static_cast<double>(*at);
}

// What every row of the table of ratios has.
inline void report(benchmark::State& state, double ours, double bare,
                   const char* unit) {
  state.counters["ours"] = ours;
  state.counters["bare"] = bare;
  state.counters["ratio"] = ours / bare;
  state.SetLabel(unit);
}

// Both functions do `items` pieces of work and answer the cycles that it took,
// whatever they prepare besides. Reports medians, which what others do on the
// machine does not move.
template <typename Ours, typename Bare>
void compare(benchmark::State& state, int64_t items, const char* unit,
             Ours ours, Bare bare) {
  // Long enough that both run with warm caches, short beside a disturbance.
  constexpr size_t kTurn = 64;
  const auto hz = static_cast<double>(rte_get_tsc_hz());
  std::vector<uint64_t> ourSamples;
  std::vector<uint64_t> bareSamples;
  for (auto _ : state) {
    ourSamples.push_back(ours());
    state.SetIterationTime(static_cast<double>(ourSamples.back()) / hz);
    if (ourSamples.size() % kTurn == 1) {
      for (size_t i = 0; i < kTurn; i++) bareSamples.push_back(bare());
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * items);
  const auto count = static_cast<double>(items);
  report(state, quantile(&ourSamples, 0.5) / count,
         quantile(&bareSamples, 0.5) / count, unit);
}

inline constexpr const char* kCyclesAPacket = "cycles/packet";

}  // namespace bench
