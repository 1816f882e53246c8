// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string>
#include <string_view>

namespace ofswitch {

// With escapes for what a terminal would obey: reasons quote files, and a file
// may hold anything.
std::string printable(std::string_view text);

// One sentence about one line of a file. Line 0 is the file as a whole.
struct Diagnostic {
  std::string file;
  int line = 0;
  std::string reason;
  int column = 0;  // 0 where lines are short

  // "flows.txt:12: reason" or "list.json:12:3: reason", on one line and safe to
  // show.
  std::string text() const;

  // "flows.txt:12: note: reason", for what is no reason to refuse the line.
  std::string noteText() const;

  bool operator==(const Diagnostic&) const = default;
};

}  // namespace ofswitch
