// SPDX-License-Identifier: BSD-3-Clause
#include "bench/measure.h"

#include <cstdio>
#include <cstdlib>
#include <string>

#include "eal.h"

namespace bench {

void die(const char* what) {
  std::fprintf(stderr, "bench: %s\n", what);
  std::exit(1);
}

void startEal(size_t memoryMb) {
  bess::EalOptions options;
  options.memory_mb = memoryMb;
  options.hugepages = std::getenv("OPENFLOW_BENCH_HUGEPAGES") != nullptr;
  if (const char* bits = std::getenv("OPENFLOW_BENCH_SIMD_BITS")) {
    options.max_simd_bits =
        static_cast<unsigned>(std::strtoul(bits, nullptr, 10));
  }
  const std::string error = bess::InitEal(options);
  if (!error.empty()) die(error.c_str());
}

}  // namespace bench
