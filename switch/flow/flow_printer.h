// SPDX-License-Identifier: BSD-3-Clause
//
// The normal form of a flow: the one text of all those that mean the same
// that this program prints. Reading it gives the flow again.
#pragma once

#include <string>

#include "switch/flow/flow.h"

namespace ofswitch {

std::string flowText(const Flow& flow);
// Empty for a match of everything.
std::string matchText(const Match& match);
std::string actionText(const Action& action, const Match& match);

}  // namespace ofswitch
