// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string_view>
#include <vector>

#include "switch/flow/action.h"
#include "switch/flow/match.h"

namespace ofswitch {

// Reads an action list. `plainReason` is the reason of a plain "controller".
// Checks each action by itself and against the match; whether the module can
// do them in this order is planActions' question. Throws Refused.
std::vector<Action> parseActions(std::string_view text, const Match& match,
                                 ControllerReason plainReason);

// Every action name that parseActions takes.
std::vector<std::string_view> actionWords();

}  // namespace ofswitch
