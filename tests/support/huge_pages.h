// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <fstream>
#include <string>

namespace openflow_test {

// Whether this machine's kernel makes huge pages of ordinary memory.
inline bool kernelMakesHugePages() {
  std::ifstream file("/sys/kernel/mm/transparent_hugepage/enabled");
  std::string modes;
  return std::getline(file, modes) &&
         modes.find("[never]") == std::string::npos;
}

}  // namespace openflow_test
