// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "switch/flow/action.h"
#include "switch/flow/match.h"
#include "switch/flow/words.h"

namespace ofswitch {

// "set_field:VALUE->FIELD". The field's prerequisites must stand in the
// match, except a VLAN tag, which an earlier action may have pushed. Throws
// Refused.
Action parseSetField(const Word& word, const Match& match);

}  // namespace ofswitch
