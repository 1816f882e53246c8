// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdlib>

namespace openflow_test {

// The module never frees the records of a build that failed. While this lives,
// programs that the test starts are not asked for leaks.
class ProgramsMayLeak {
 public:
  ProgramsMayLeak() { setenv("ASAN_OPTIONS", "detect_leaks=0", 1); }
  ~ProgramsMayLeak() { unsetenv("ASAN_OPTIONS"); }
  ProgramsMayLeak(const ProgramsMayLeak&) = delete;
  ProgramsMayLeak& operator=(const ProgramsMayLeak&) = delete;
};

}  // namespace openflow_test
