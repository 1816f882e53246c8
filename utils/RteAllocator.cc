// SPDX-License-Identifier: BSD-3-Clause
#include "utils/RteAllocator.h"

#include <glog/logging.h>

namespace Dpdk {

namespace {

// Operators search their logs for this source and line, so it does not follow
// the file when that changes.
constexpr char kLoggedSource[] = "/src/QuilModules/RteAllocator";
constexpr int kLoggedLine = 72;

}  // namespace

void allocationFailed(const std::string& type, size_t bytes) {
  // glog prints the last part of the source only; the message has it whole.
  google::LogMessageFatal(kLoggedSource, kLoggedLine).stream()
      << "Check failed: 0 (" << kLoggedSource << ":" << kLoggedLine
      << ") DPDK heap has no " << bytes << " bytes for \"" << type << "\"";
}

}  // namespace Dpdk
