// SPDX-License-Identifier: BSD-3-Clause
//
// The main program of the suites that need a module.
#include <benchmark/benchmark.h>

#include "bench/bench_rig.h"

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  const bench::Rig rig;
  benchmark::RunSpecifiedBenchmarks();
}
