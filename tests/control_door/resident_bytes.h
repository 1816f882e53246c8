// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <unistd.h>

#include <cstddef>
#include <fstream>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// Of every sanitizer's runtime; g++ has no header that declares it.
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#define OPENFLOW_COUNTED_ALLOCATIONS 1
#endif

namespace ofswitch {

// What this process has in memory now. A sanitizer holds back what was freed,
// and has notes of its own beside; there, what was allocated and not freed.
inline size_t residentBytes() {
#ifdef OPENFLOW_COUNTED_ALLOCATIONS
  return __sanitizer_get_current_allocated_bytes();
#else
  std::ifstream statm("/proc/self/statm");
  size_t all = 0;
  size_t resident = 0;
  statm >> all >> resident;
  return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
#endif
}

}  // namespace ofswitch
