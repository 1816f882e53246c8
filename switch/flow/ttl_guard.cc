// SPDX-License-Identifier: BSD-3-Clause
#include "switch/flow/ttl_guard.h"

namespace ofswitch {

TtlGuards ttlGuards(const Match& match, const ActionPlan& plan) {
  constexpr Masked<uint8_t> kExpired{0, 0xfe};  // TTL 0 or 1
  const Masked<uint8_t> ttl = match.ipTtl;
  TtlGuards guards;
  if (!plan.rewrites.decTtl || (ttl.value & kExpired.mask) != 0) return guards;
  if ((ttl.mask & kExpired.mask) == kExpired.mask) {
    guards.flowDrops = true;
    return guards;
  }
  Match expired = match;
  expired.ipTtl = {ttl.value, static_cast<uint8_t>(ttl.mask | kExpired.mask)};
  if (!match.ethType.any()) {  // then it is one of IP: others have no TTL
    guards.matches.push_back(expired);
    return guards;
  }
  for (const uint16_t type : {kEthTypeIpv4, kEthTypeIpv6}) {
    expired.ethType = Masked<uint16_t>::exact(type);
    guards.matches.push_back(expired);
  }
  return guards;
}

}  // namespace ofswitch
