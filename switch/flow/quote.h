// SPDX-License-Identifier: BSD-3-Clause
//
// Words of a file inside a sentence about it.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace ofswitch {

// Whether a byte of UTF-8 text goes on with a character begun before it.
bool isInsideCharacter(char c);

// The first `most` bytes of UTF-8 text and a mark for what is missing. A
// message with half a character in it could not be read.
std::string cutText(std::string_view text, size_t most);

}  // namespace ofswitch
