// SPDX-License-Identifier: BSD-3-Clause
#include "switch/flow/quote.h"

namespace ofswitch {

bool isInsideCharacter(char c) {
  return (static_cast<unsigned char>(c) & 0xc0) == 0x80;
}

std::string cutText(std::string_view text, size_t most) {
  if (text.size() <= most) return std::string(text);
  while (most > 0 && isInsideCharacter(text[most])) most--;
  return std::string(text.substr(0, most)) + "...";
}

}  // namespace ofswitch
