// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <span>
#include <string_view>
#include <vector>

#include "switch/flow/match.h"
#include "switch/flow/words.h"

namespace ofswitch {

// The match that the words make together, in any order. Throws Refused for
// an unknown field, a value out of range, a missing prerequisite, words that
// contradict each other, and whatever the classifier key cannot hold.
Match parseMatch(std::span<const Word> words);

// Every field name and protocol word that parseMatch takes.
std::vector<std::string_view> matchWords();

}  // namespace ofswitch
