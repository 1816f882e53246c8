// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "switch/replay/policy.h"

namespace ofswitch {

struct BuildCheckOptions {
  std::string modulePath;
  size_t memoryMb = 512;
  size_t buildMb = 0;  // 0: what fits the machine
};

// A table and family as it is after all updates, the last of them measured.
struct TableBuild {
  uint32_t table = 0;
  bool ipv6 = false;
  uint64_t flows = 0;
  std::string failure;  // empty: it builds
  double milliseconds = 0;
  size_t buildBytes = 0;  // at the peak of the build, given back after it
  // What flows, rules, actions and classifier keep of DPDK's memory.
  size_t keptBytes = 0;
  // What a lookup takes, of packets that the table's flows match. The processor
  // is one that nobody else uses meanwhile, or it is less than said here.
  double cyclesPerPacket = 0;
};

// Builds the tables of `policy` in an instance of the module in this process's
// host. By table, IPv4 before IPv6. Throws std::runtime_error when it cannot be
// set up.
std::vector<TableBuild> checkBuilds(const Policy& policy,
                                    const BuildCheckOptions& options);

}  // namespace ofswitch
