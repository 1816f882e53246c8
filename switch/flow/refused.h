// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <fmt/format.h>

#include <stdexcept>
#include <string_view>
#include <type_traits>
#include <utility>

#include "switch/flow/quote.h"

namespace ofswitch {

// Thrown while one flow is read or translated, caught by whoever knows its
// file and line. The text is the whole reason, ready to be shown.
struct Refused : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// A view is a word of the input, which may be of any length. Strings are
// sentences of ours.
template <class T>
decltype(auto) quotable(T&& argument) {
  constexpr size_t kLongestQuote = 80;
  if constexpr (std::is_same_v<std::remove_cvref_t<T>, std::string_view>) {
    return cutText(argument, kLongestQuote);
  } else {
    return std::forward<T>(argument);
  }
}

template <class... Args>
[[noreturn]] void refuse(fmt::format_string<Args...> text, Args&&... args) {
  throw Refused(
      fmt::format(fmt::runtime(text), quotable(std::forward<Args>(args))...));
}

}  // namespace ofswitch
