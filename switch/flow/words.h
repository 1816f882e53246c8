// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string_view>
#include <vector>

namespace ofswitch {

// One item of a flow line: "ip", "tp_dst=80", "output:2", "learn(...)".
struct Word {
  std::string_view key;
  std::string_view value;  // without the '=', ':' or outer parentheses
  std::string_view text;   // as written
  bool hasValue = false;
  bool inParentheses = false;
};

// Splits a list of words at commas and blanks outside parentheses. Throws
// Refused when parentheses do not balance.
std::vector<Word> splitWords(std::string_view text);

std::string_view trim(std::string_view text);

// Some editors begin a UTF-8 file with a mark that is not part of its text.
std::string_view withoutByteOrderMark(std::string_view text);

}  // namespace ofswitch
