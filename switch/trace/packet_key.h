// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdint>
#include <string_view>

#include "switch/flow/match.h"

namespace ofswitch {

// What the classifier of a family sees of a packet, as the match that only
// packets with this key meet: all of its fields are exact. A field that the
// packet does not have is 0, and so are the layer 3 and 4 fields of a packet of
// the other family. `bytes` is the frame with what lies behind it in its
// buffer; what is not there either reads as zeros.
Match packetKey(std::string_view bytes, uint16_t inPort, bool ipv6);

// The same in the family whose key holds the packet's layer 3 fields.
Match packetKey(std::string_view bytes, uint16_t inPort);

}  // namespace ofswitch
