// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace ofswitch {

// Numbers to the right, words to the left, columns as wide as they need.
class TextTable {
 public:
  // The last `words` columns hold words.
  explicit TextTable(std::vector<std::string> head, size_t words = 0);

  // A cell for each column.
  void add(std::vector<std::string> row);
  bool hasRows() const { return rows_.size() > 1; }

  // Head and rows, each a line.
  std::string text() const;

 private:
  size_t words_;
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace ofswitch
