// SPDX-License-Identifier: BSD-3-Clause
//
// The ring of trace statements by itself: a statement written, beside its bytes
// copied to as many cells; the whole ring read and formatted, beside a copy of
// its memory.
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>
#include <vector>

#include "bench/measure.h"
#include "platform/ringlog/ringlog.h"

namespace {

using Ringlog::Argument;

constexpr size_t kCells = 4096;
constexpr size_t kCellBytes = 8 * Ringlog::Ring::kCellWords;
constexpr int kStatements = 64;  // a sample

const Ringlog::Site& site() {
  static const Ringlog::Site& site =
      Ringlog::internSite("RingBench", 2, "site", "%s %s %s");
  return site;
}

// As long as the ring, for the bare side to write to.
std::vector<char>& plainMemory() {
  static std::vector<char> memory(kCells * kCellBytes);
  return memory;
}

void compareWrites(benchmark::State& state,
                   const std::vector<Argument>& arguments, size_t cells) {
  Ringlog::Ring ring(kCells);
  const std::vector<char> statement(cells * kCellBytes, 'x');
  size_t next = 0;
  bench::compare(
      state, kStatements, "cycles/write",
      [&] {
        return bench::cycles([&] {
          for (int i = 0; i < kStatements; i++) ring.write(site(), arguments);
        });
      },
      [&] {
        return bench::cycles([&] {
          for (int i = 0; i < kStatements; i++) {
            std::memcpy(&plainMemory()[next], statement.data(),
                        statement.size());
            next += statement.size();
            if (next + statement.size() > plainMemory().size()) next = 0;
            benchmark::ClobberMemory();
          }
        });
      });
}

void writeNumbers(benchmark::State& state) {
  compareWrites(state, {Argument::of(1), Argument::of(2), Argument::of(3)}, 1);
}
BENCHMARK(writeNumbers)->UseManualTime();

void writeText(benchmark::State& state) {
  const std::string text(static_cast<size_t>(state.range(0)), 'x');
  const size_t words = 1 + (text.size() + 7) / 8;
  const size_t more =
      words > Ringlog::Ring::kHeadWords ? words - Ringlog::Ring::kHeadWords : 0;
  compareWrites(
      state, {Argument::of(text)},
      1 + (more + Ringlog::Ring::kMoreWords - 1) / Ringlog::Ring::kMoreWords);
}
BENCHMARK(writeText)->ArgName("bytes")->Arg(14)->Arg(1000)->UseManualTime();

void readAll(benchmark::State& state) {
  Ringlog::Ring ring(kCells);
  for (size_t i = 0; i < kCells; i++) {
    ring.write(site(), std::vector<Argument>{Argument::of(i), Argument::of(2),
                                             Argument::of(3)});
  }
  std::vector<char> copy(plainMemory().size());
  bench::compare(
      state, kCells, "cycles/read",
      [&] {
        return bench::cycles([&] {
          if (ring.read().size() != kCells) bench::die("statements are lost");
        });
      },
      [&] {
        return bench::cycles([&] {
          std::memcpy(copy.data(), plainMemory().data(), copy.size());
          benchmark::ClobberMemory();
        });
      });
}
BENCHMARK(readAll)->UseManualTime();

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  bench::startEal(64);  // the cycle counter's frequency comes from DPDK
  benchmark::RunSpecifiedBenchmarks();
}
