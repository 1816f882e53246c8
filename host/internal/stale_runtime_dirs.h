// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <filesystem>
#include <string>

namespace bess::internal {

// Removes what processes have left in `parent` that were killed before they
// could: directories named `prefix` and a process number, with nothing in them
// but telemetry sockets that nobody listens on. Leaves those of a process that
// lives alone, and all that cannot be removed.
void RemoveStaleRuntimeDirs(const std::filesystem::path& parent,
                            const std::string& prefix);

}  // namespace bess::internal
