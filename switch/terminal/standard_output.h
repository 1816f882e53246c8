// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <system_error>
#include <utility>

namespace ofswitch {

// Shows what was printed until now, for a command that goes on. Throws
// std::system_error where nobody takes it, so that the command does not.
inline void flushOutput() {
  if (std::fflush(stdout) != 0) {
    throw std::system_error(errno, std::generic_category(), "standard output");
  }
}

// Prints for who may read it. Where nobody does, the text is lost and no more:
// the program goes on.
template <class... T>
void printMessage(fmt::format_string<T...> format, T&&... arguments) {
  const std::string text = fmt::format(format, std::forward<T>(arguments)...);
  std::fwrite(text.data(), 1, text.size(), stdout);
}

}  // namespace ofswitch
