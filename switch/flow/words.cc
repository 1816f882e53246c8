// SPDX-License-Identifier: BSD-3-Clause
#include "switch/flow/words.h"

#include "switch/flow/refused.h"

namespace ofswitch {
namespace {

constexpr std::string_view kBlanks = " \t\r\n";
constexpr std::string_view kSeparators = ", \t\r\n";

// The end of the word that starts at `begin`: a separator outside
// parentheses, or the end of the text.
size_t wordEnd(std::string_view text, size_t begin) {
  int depth = 0;
  size_t at = begin;
  for (; at < text.size(); at++) {
    const char c = text[at];
    if (c == '(') {
      depth++;
    } else if (c == ')') {
      if (--depth < 0) {
        refuse("{}: \")\" without \"(\"", text.substr(begin, at + 1 - begin));
      }
    } else if (depth == 0 && kSeparators.find(c) != std::string_view::npos) {
      break;
    }
  }
  if (depth != 0) {
    refuse("{}: \"(\" without \")\"", trim(text.substr(begin, at - begin)));
  }
  return at;
}

Word parseWord(std::string_view text) {
  Word word;
  word.text = text;
  const size_t delimiter = text.find_first_of("=:(");
  word.key = text.substr(0, delimiter);
  if (delimiter == std::string_view::npos) return word;
  word.hasValue = true;
  word.value = text.substr(delimiter + 1);
  if (text[delimiter] == '(') {
    word.inParentheses = true;
    const size_t close = text.rfind(')');
    if (close + 1 != text.size()) {
      refuse("{}: nothing may follow \")\"", text);
    }
    word.value = text.substr(delimiter + 1, close - delimiter - 1);
  }
  return word;
}

}  // namespace

std::vector<Word> splitWords(std::string_view text) {
  std::vector<Word> words;
  size_t at = text.find_first_not_of(kSeparators);
  while (at != std::string_view::npos) {
    const size_t end = wordEnd(text, at);
    words.push_back(parseWord(text.substr(at, end - at)));
    at = text.find_first_not_of(kSeparators, end);
  }
  return words;
}

std::string_view trim(std::string_view text) {
  const size_t begin = text.find_first_not_of(kBlanks);
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(kBlanks) + 1 - begin);
}

std::string_view withoutByteOrderMark(std::string_view text) {
  constexpr std::string_view kMark = "\xef\xbb\xbf";
  return text.starts_with(kMark) ? text.substr(kMark.size()) : text;
}

}  // namespace ofswitch
