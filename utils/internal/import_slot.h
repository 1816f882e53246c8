// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string>

namespace Dpdk::internal {

// Makes the calls of one loaded shared library to the function that it imports
// by the name `function` go to `replacement`, from now until the process ends;
// nobody else's calls change. `library` is how the library's file name starts.
//
// Answers false, and changes nothing, when no such library is loaded or when it
// does not import the function. Thread-safe towards the library's users: they
// call the one or the other.
bool redirectImport(const std::string& library, const std::string& function,
                    void* replacement);

}  // namespace Dpdk::internal
