// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <fmt/format.h>

#include <string>

namespace ofswitch {

// One sentence about one line of a file. Line 0 is the file as a whole.
struct Diagnostic {
  std::string file;
  int line = 0;
  std::string reason;

  std::string text() const {
    return line == 0 ? fmt::format("{}: {}", file, reason)
                     : fmt::format("{}:{}: {}", file, line, reason);
  }

  bool operator==(const Diagnostic&) const = default;
};

}  // namespace ofswitch
