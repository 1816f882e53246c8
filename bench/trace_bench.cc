// SPDX-License-Identifier: BSD-3-Clause
// What a trace statement costs that goes to the ring alone, beside the least it
// could cost: reading the time stamp counter, and the two locked operations by
// which several writers share the ring.
#include <benchmark/benchmark.h>
#include <x86intrin.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "platform/twinlog/twinlog.h"

namespace {

const Mio::TraceHandle& handle() {
  static const Mio::TraceHandle handle("TraceBench", 0);
  return handle;
}

void rawTimeStamp(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(__rdtsc());
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(rawTimeStamp);

void rawTimeStampAndLockedOperations(benchmark::State& state) {
  static std::atomic<uint64_t> head{0};
  static std::atomic<uint64_t> cell{0};
  for (auto _ : state) {
    benchmark::DoNotOptimize(__rdtsc());
    uint64_t seen = cell.load(std::memory_order_relaxed);
    const uint64_t position = head.fetch_add(1, std::memory_order_relaxed);
    benchmark::DoNotOptimize(cell.compare_exchange_strong(seen, position));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(rawTimeStampAndLockedOperations);

void traceText(benchmark::State& state) {
  for (auto _ : state) {
    TWINLOG_TRACE(handle(), 2, "virtual void OpenFlow::DeInit(): ");
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(traceText)->Threads(1)->Threads(2);

void traceNumbers(benchmark::State& state) {
  uint32_t number = 0;
  for (auto _ : state) {
    TWINLOG_TRACE(handle(), 2, "addFlow tableId: %s, flowType: %s, flowId: %s",
                  uint8_t{3}, 1, number++);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(traceNumbers)->Threads(1)->Threads(2);

void traceString(benchmark::State& state) {
  const std::string text(static_cast<size_t>(state.range(0)), 'x');
  for (auto _ : state) {
    TWINLOG_TRACE(handle(), 2, "%s", text);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(traceString)->ArgName("bytes")->Arg(14)->Arg(200)->Arg(6000);

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
BENCHMARK(traceNumbersToText);

}  // namespace

BENCHMARK_MAIN();
