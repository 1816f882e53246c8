// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <fmt/format.h>

#include <stdexcept>
#include <utility>

namespace ofswitch {

// Thrown while one flow is read or translated, caught by whoever knows its
// file and line. The text is the whole reason, ready to be shown.
struct Refused : std::runtime_error {
  using std::runtime_error::runtime_error;
};

template <class... Args>
[[noreturn]] void refuse(fmt::format_string<Args...> text, Args&&... args) {
  throw Refused(fmt::format(text, std::forward<Args>(args)...));
}

}  // namespace ofswitch
