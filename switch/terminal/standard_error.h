// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <fmt/format.h>

#include <cstdio>
#include <string>
#include <utility>

namespace ofswitch {

// Prints to standard error. Where that takes nothing (a full disk, a reader
// that is gone) the text is lost and no more: what the program is at goes on,
// and its exit status says how that went.
template <class... T>
void printError(fmt::format_string<T...> format, T&&... arguments) {
  const std::string text = fmt::format(format, std::forward<T>(arguments)...);
  std::fwrite(text.data(), 1, text.size(), stderr);
}

// Opens what is closed of standard input, output and error, before any file or
// socket gets such a number and then what is meant for them. Reading and
// printing fail as they would without, messages go nowhere.
void fillStandardStreams();

}  // namespace ofswitch
