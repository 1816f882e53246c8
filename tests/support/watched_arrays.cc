// SPDX-License-Identifier: BSD-3-Clause
//
// Beside watched.cc, for programs that watch arrays: what an array takes and
// gives back goes through the operators for objects, as it does by itself but
// in AddressSanitizer's build.
#include <cstddef>
#include <new>

void* operator new[](size_t size) { return operator new(size); }
void operator delete[](void* array) noexcept { operator delete(array); }
void operator delete[](void* array, size_t) noexcept { operator delete(array); }
