// SPDX-License-Identifier: BSD-3-Clause
//
// What a trace statement costs that goes to the ring alone, beside the least it
// could cost: reading the time stamp counter, and the two locked operations by
// which several writers share the ring.
#include <benchmark/benchmark.h>
#include <x86intrin.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "bench/measure.h"
#include "platform/twinlog/twinlog.h"

namespace {

const Mio::TraceHandle& handle() {
  static const Mio::TraceHandle handle("TraceBench", 0);
  return handle;
}

constexpr int kStatements = 64;  // a sample

// The least that several writers can share a ring by.
uint64_t rawStatements() {
  static std::atomic<uint64_t> head{0};
  static std::atomic<uint64_t> cell{0};
  return bench::cycles([] {
    for (int i = 0; i < kStatements; i++) {
      benchmark::DoNotOptimize(__rdtsc());
      uint64_t seen = cell.load(std::memory_order_relaxed);
      const uint64_t position = head.fetch_add(1, std::memory_order_relaxed);
      benchmark::DoNotOptimize(cell.compare_exchange_strong(seen, position));
    }
  });
}

template <typename Statement>
void compareStatement(benchmark::State& state, Statement statement) {
  bench::compare(
      state, kStatements, "cycles/trace",
      [&] {
        return bench::cycles([&] {
          for (int i = 0; i < kStatements; i++) statement();
        });
      },
      rawStatements);
}

void traceText(benchmark::State& state) {
  compareStatement(state, [] {
    TWINLOG_TRACE(handle(), 2, "virtual void OpenFlow::DeInit(): ");
  });
}
BENCHMARK(traceText)->UseManualTime();

void traceNumbers(benchmark::State& state) {
  uint32_t number = 0;
  compareStatement(state, [&] {
    TWINLOG_TRACE(handle(), 2, "addFlow tableId: %s, flowType: %s, flowId: %s",
                  uint8_t{3}, 1, number++);
  });
}
BENCHMARK(traceNumbers)->UseManualTime();

void traceString(benchmark::State& state) {
  const std::string text(static_cast<size_t>(state.range(0)), 'x');
  compareStatement(state, [&] { TWINLOG_TRACE(handle(), 2, "%s", text); });
}
BENCHMARK(traceString)
    ->ArgName("bytes")
    ->Arg(14)
    ->Arg(200)
    ->Arg(6000)
    ->UseManualTime();

// The same, formatted and handed to a sink that drops it.
void traceNumbersToText(benchmark::State& state) {
  Twinlog::removeSink(Twinlog::kStandardErrorSink);
  const Twinlog::SinkId sink = Twinlog::addSink([](const Twinlog::Message& m) {
    benchmark::DoNotOptimize(m.text.data());
  });
  Mio::setTraceLevels("TraceBench", 1u << 2);
  traceNumbers(state);
  Mio::setTraceLevels("TraceBench", 0);
  Twinlog::removeSink(sink);
  Twinlog::addStandardErrorSink();
}
BENCHMARK(traceNumbersToText)->UseManualTime();

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  bench::startEal(64);  // the cycle counter's frequency comes from DPDK
  benchmark::RunSpecifiedBenchmarks();
}
