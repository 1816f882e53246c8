// SPDX-License-Identifier: BSD-3-Clause
#include "switch/flow/diagnostic.h"

#include <fmt/format.h>

namespace ofswitch {
namespace {

std::string where(const Diagnostic& diagnostic) {
  std::string text = diagnostic.file;
  if (diagnostic.line != 0) text += fmt::format(":{}", diagnostic.line);
  if (diagnostic.column != 0) text += fmt::format(":{}", diagnostic.column);
  return text;
}

}  // namespace

std::string printable(std::string_view text) {
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

std::string Diagnostic::text() const {
  return printable(fmt::format("{}: {}", where(*this), reason));
}

std::string Diagnostic::noteText() const {
  return printable(fmt::format("{}: note: {}", where(*this), reason));
}

}  // namespace ofswitch
