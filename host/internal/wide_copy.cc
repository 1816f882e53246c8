// SPDX-License-Identifier: BSD-3-Clause
#include "internal/wide_copy.h"

namespace bess::internal {

bool wide_copies = false;

void AllowWideCopies(unsigned max_simd_bits) {
  wide_copies = max_simd_bits >= 512 && __builtin_cpu_supports("avx512f");
}

}  // namespace bess::internal
