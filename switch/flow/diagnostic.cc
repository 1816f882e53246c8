// SPDX-License-Identifier: BSD-3-Clause
#include "switch/flow/diagnostic.h"

#include <fmt/format.h>

namespace ofswitch {
namespace {

// Reasons quote the file, and a file may hold what a terminal would obey.
std::string printable(const std::string& text) {
  std::string shown;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) {
      shown += fmt::format("\\x{:02x}", byte);
    } else {
      shown += c;
    }
  }
  return shown;
}

}  // namespace

std::string Diagnostic::text() const {
  const std::string where = line == 0 ? file : fmt::format("{}:{}", file, line);
  return printable(fmt::format("{}: {}", where, reason));
}

}  // namespace ofswitch
