// SPDX-License-Identifier: BSD-3-Clause
#include "switch/terminal/text_table.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace ofswitch {

TextTable::TextTable(std::vector<std::string> head, size_t words)
    : words_(words) {
  rows_.push_back(std::move(head));
}

void TextTable::add(std::vector<std::string> row) {
  rows_.push_back(std::move(row));
}

std::string TextTable::text() const {
  std::vector<size_t> widths(rows_[0].size());
  for (const auto& row : rows_) {
    for (size_t i = 0; i < row.size(); i++) {
      widths[i] = std::max(widths[i], row[i].size());
    }
  }
  std::string text;
  for (const auto& row : rows_) {
    std::string line = " ";
    for (size_t i = 0; i < row.size(); i++) {
      if (i + words_ < row.size()) {
        line += fmt::format(" {:>{}}", row[i], widths[i]);
      } else {
        line += fmt::format("  {:<{}}", row[i], widths[i]);
      }
    }
    line.erase(line.find_last_not_of(' ') + 1);
    text += line + "\n";
  }
  return text;
}

}  // namespace ofswitch
