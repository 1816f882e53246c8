// SPDX-License-Identifier: BSD-3-Clause
//
// The lookup keys of a packet, and the rules that are compared with them, one
// field after the other.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "openflow.pb.h"
#include "tests/support/reference_packet.h"

namespace openflow_test {

struct ReferenceKeys {
  std::array<uint8_t, 53> ipv4{};
  std::array<uint8_t, 73> ipv6{};
};

ReferenceKeys referenceKeys(const ReferencePacket& packet);

// Value and mask of one field of a rule; a mask of zero matches anything.
struct ReferenceField {
  uint32_t value = 0;
  uint32_t mask = 0;
};

// A flow's match as a rule: 21 fields for IPv4, 26 for IPv6.
std::vector<ReferenceField> referenceRule(const quil::pb::OfMatch& match,
                                          bool ipv6);

bool referenceMatches(const std::vector<ReferenceField>& rule,
                      const ReferenceKeys& keys);

// The first `length` bytes of a bytes value of a message; missing ones are
// zero.
Bytes padded(const std::string& value, size_t length);

}  // namespace openflow_test
