// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "switch.pb.h"

namespace ofswitch {

// A packet to be traced.
struct TracedPacket {
  std::string frame;
  uint16_t inPort = 0;
  uint8_t table = 0;  // where it starts
};

// Makes the packet that is asked for; `ports` are those of the switch. Nothing
// here trusts its input. Throws Refused.
TracedPacket readTraceRequest(const pb::TraceRequest& request,
                              const std::vector<uint16_t>& ports);

}  // namespace ofswitch
