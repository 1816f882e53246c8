// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <unistd.h>

#include <cstddef>
#include <fstream>

// Of every sanitizer's runtime, of which g++ has no header that declares it;
// null in a program without one.
extern "C" __attribute__((weak)) size_t
__sanitizer_get_current_allocated_bytes();

namespace ofswitch {

// What this process has in memory now. A sanitizer holds back what was freed,
// and has notes of its own beside; there, what was allocated and not freed.
inline size_t residentBytes() {
  if (__sanitizer_get_current_allocated_bytes != nullptr) {
    return __sanitizer_get_current_allocated_bytes();
  }
  std::ifstream statm("/proc/self/statm");
  size_t all = 0;
  size_t resident = 0;
  statm >> all >> resident;
  return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace ofswitch
