// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "switch/flow/match.h"

namespace ofswitch {

// "+syn-ack", "0x02/0x12" or, for all flags at once, "syn|ack". The module
// reads the low eight flags only. Throws Refused.
Masked<uint8_t> parseTcpFlags(std::string_view text, std::string_view word);

// The first form, which parseTcpFlags reads back.
std::string tcpFlagsText(Masked<uint8_t> flags);

}  // namespace ofswitch
