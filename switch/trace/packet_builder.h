// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string>

#include "switch/flow/match.h"

namespace ofswitch {

// A frame that a correct sender could have sent and that `match` matches. What
// the match leaves open gets a value that stands out: addresses for
// documentation, ports and protocols of no service, a TTL of 64.
std::string buildFrame(const Match& match);

}  // namespace ofswitch
