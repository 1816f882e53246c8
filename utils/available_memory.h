// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstddef>
#include <filesystem>

namespace Dpdk {

// Bytes that this process could still take without swapping and without anyone
// being ended for it: what the machine has available, or less when a control
// group of the process (version 1 or 2) is nearer to its limit. SIZE_MAX where
// the system does not tell. `root` is where /proc and /sys are looked for.
size_t availableMemory(const std::filesystem::path& root = "/");

}  // namespace Dpdk
