// SPDX-License-Identifier: BSD-3-Clause
//
// Built for AVX-512, as a module from elsewhere may be: more vectors are in use
// around the copy than there are registers without those that the copy needs.
#include <immintrin.h>

#include "internal/wide_copy.h"

constexpr int kVectors = 28;

extern "C" void CopyWithVectorsInUse(float* vectors, char* to,
                                     const char* from) {
  __m512 held[kVectors];
#pragma GCC unroll 32
  for (int i = 0; i < kVectors; i++) {
    held[i] = _mm512_loadu_ps(vectors + 16 * i);
  }
  bess::internal::CopyLines(to, from, 128);
#pragma GCC unroll 32
  for (int i = 0; i < kVectors; i++) {
    _mm512_storeu_ps(vectors + 16 * i, held[i]);
  }
}
