// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <unistd.h>

#include <cstddef>
#include <fstream>

namespace ofswitch {

// What this process has in memory now.
inline size_t residentBytes() {
  std::ifstream statm("/proc/self/statm");
  size_t all = 0;
  size_t resident = 0;
  statm >> all >> resident;
  return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace ofswitch
