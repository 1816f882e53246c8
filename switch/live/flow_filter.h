// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "switch/flow/flow.h"

namespace ofswitch {

// Whether every packet that `narrow` matches is matched by `wide` because
// each constraint of `wide` stands in `narrow`, too.
bool covers(const Match& wide, const Match& narrow);

// Selects flows, as the arguments of "ovs-ofctl del-flows" and "dump-flows"
// do. Loosely: flows whose match is at least as narrow as the filter's.
// Strictly: flows of exactly its match and priority. Table, cookie and output
// port narrow both down further.
struct FlowFilter {
  std::optional<uint8_t> table;
  std::optional<uint16_t> outPort;  // flows that send to this port
  Masked<uint64_t> cookie;
  Match match;
  bool strict = false;
  uint16_t priority = kDefaultPriority;  // strictly only

  bool selects(const Flow& flow) const;
};

// Reads "table=3,cookie=0x10/0xf0,out_port=2,tcp,nw_dst=10.0.0.0/8". Empty
// text selects everything. Throws Refused.
FlowFilter parseFlowFilter(std::string_view text, bool strict);

}  // namespace ofswitch
