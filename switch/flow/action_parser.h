// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string_view>
#include <vector>

#include "switch/flow/action.h"
#include "switch/flow/match.h"

namespace ofswitch {

// An action list, with the word of the line that each action comes from.
struct ParsedActions {
  std::vector<Action> actions;
  std::vector<std::string_view> words;
};

// Reads an action list. `plainReason` is the reason of a plain "controller".
// Checks each action by itself and against the match; whether the module can
// do them in this order is planActions' question. Throws Refused.
ParsedActions parseActions(std::string_view text, const Match& match,
                           ControllerReason plainReason);

// Every action name that parseActions takes.
std::vector<std::string_view> actionWords();

}  // namespace ofswitch
