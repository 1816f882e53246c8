// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <vector>

// What this test program gave back to DPDK and liburcu, in order: pointers, and
// kGracePeriod for a wait.
namespace RteCalls {

enum class Kind { kAclFree, kFree, kGracePeriod };

struct Call {
  Kind kind;
  const void* pointer;
  bool operator==(const Call&) const = default;
};

std::vector<Call>& log();

}  // namespace RteCalls
