// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cerrno>
#include <cstdio>
#include <system_error>

namespace ofswitch {

// Shows what was printed until now, for a command that goes on. Throws
// std::system_error where nobody takes it, so that the command does not.
inline void flushOutput() {
  if (std::fflush(stdout) != 0) {
    throw std::system_error(errno, std::generic_category(), "standard output");
  }
}

}  // namespace ofswitch
