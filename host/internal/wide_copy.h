// SPDX-License-Identifier: BSD-3-Clause
//
// The copy that every output makes: 128 bytes, in two stores of 64 where the
// processor has AVX-512, in eight otherwise.
//
// The stores are what a copy costs: at most one cache line is written a cycle,
// and while eight stores a packet wait for it, the loads behind them wait, too.
// Everything is compiled for any x86-64 processor, so no compiler would emit
// the wide ones here by itself. Registers above 15 are used because the other
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

inline constexpr size_t kWideCopySize = 128;

// Whether the wide stores may be used. Written when DPDK starts, before there
// are workers.
extern bool wide_copies;

// Allows them if the processor has them and `max_simd_bits`, the operator's
// limit, is 512 or more.
void AllowWideCopies(unsigned max_simd_bits);

// Copies kWideCopySize bytes. The two sides do not overlap.
inline void WideCopy(char* to, const char* from) {
#ifndef BESS_WATCHED_BY_SANITIZER
  if (wide_copies) [[likely]] {
    asm volatile(
        "vmovdqu64   (%1), %%zmm16\n\t"
        "vmovdqu64 64(%1), %%zmm17\n\t"
        "vmovdqu64 %%zmm16,   (%0)\n\t"
        "vmovdqu64 %%zmm17, 64(%0)"
        :
        : "r"(to), "r"(from)
#ifdef __AVX512F__  // the module around it may have these registers in use
        : "memory", "xmm16", "xmm17");
#else
        : "memory");
#endif
    return;
  }
#endif
  memcpy(to, from, kWideCopySize);
}

}  // namespace bess::internal
