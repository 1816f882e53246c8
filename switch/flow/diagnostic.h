// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string>

namespace ofswitch {

// One sentence about one line of a file. Line 0 is the file as a whole.
struct Diagnostic {
  std::string file;
  int line = 0;
  std::string reason;

  // "flows.txt:12: reason", on one line and safe to show.
  std::string text() const;

  bool operator==(const Diagnostic&) const = default;
};

}  // namespace ofswitch
