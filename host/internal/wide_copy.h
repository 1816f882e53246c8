// SPDX-License-Identifier: BSD-3-Clause
//
// The copy that every output makes: whole cache lines, each in one store where
// the processor has AVX-512, in four otherwise.
//
// The stores are what a copy costs: at most one cache line is written a cycle,
// and while four stores a line wait for it, the loads behind them wait, too.
// Everything is compiled for any x86-64 processor, so no compiler would emit
// the wide ones here by itself. A register above 15 is used because the other
// ones would have to be cleared behind the copy.
#pragma once

#include <cstddef>
#include <cstring>

// Sanitizers do not see what assembly does.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define BESS_WATCHED_BY_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define BESS_WATCHED_BY_SANITIZER 1
#endif
#endif

namespace bess::internal {

inline constexpr size_t kCopyLine = 64;

// Whether the wide stores may be used. Written when DPDK starts, before there
// are workers.
extern bool wide_copies;

// Allows them if the processor has them and `max_simd_bits`, the operator's
// limit, is 512 or more.
void AllowWideCopies(unsigned max_simd_bits);

inline void CopyLine(char* to, const char* from, [[maybe_unused]] bool wide) {
#ifndef BESS_WATCHED_BY_SANITIZER
  if (wide) [[likely]] {
    asm volatile(
        "vmovdqu64 (%1), %%zmm16\n\t"
        "vmovdqu64 %%zmm16, (%0)"
        :
        : "r"(to), "r"(from)
#ifdef __AVX512F__  // the module around it may have the register in use
        : "memory", "xmm16");
#else
        : "memory");
#endif
    return;
  }
#endif
  memcpy(to, from, kCopyLine);
}

// Copies `size` bytes, and what lies behind them up to the next multiple of
// kCopyLine: at least one line. The two sides do not overlap.
inline void CopyLines(char* to, const char* from, size_t size) {
  const bool wide = wide_copies;
  CopyLine(to, from, wide);
  for (size_t at = kCopyLine; at < size; at += kCopyLine) [[unlikely]] {
      CopyLine(to + at, from + at, wide);
    }
}

}  // namespace bess::internal
