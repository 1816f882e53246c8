// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "switch/replay/account.h"
#include "switch/replay/policy.h"

namespace ofswitch {

struct ReplayInput {
  uint16_t port = 0;
  std::string path;
};

struct SessionOptions {
  std::string modulePath;
  std::vector<ReplayInput> inputs;
  std::string outDir;  // empty: outputs are only counted
  int workers = 1;
  size_t memoryMb = 512;
  size_t buildMb = 0;  // 0: what fits the machine
};

struct SessionResult {
  ReplayCounts counts;
  std::vector<std::string> errors;    // what was read or written incompletely
  std::vector<std::string> warnings;  // what a person may want to know
};

// The file that receives what leaves on `port`.
std::string outputFile(const std::string& outDir, uint16_t port);

// Runs the inputs through an instance of the module in this process's host:
// tables bound and policy applied, then one source a worker, one sink a gate.
// Throws std::runtime_error when it cannot be set up; the host is left as it
// was found. One at a time.
SessionResult runSession(const Policy& policy, const SessionOptions& options);

}  // namespace ofswitch
