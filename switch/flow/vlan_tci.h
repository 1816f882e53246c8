// SPDX-License-Identifier: BSD-3-Clause
//
// OpenFlow and the classifier see VLAN tags differently:
//
//   OpenFlow vlan_tci/vlan_vid   PCP(3) present(1) VID(12)   all 0: untagged
//   classifier key vlanTci       PCP(3) DEI(1)     VID(12)   all 0: untagged,
//                                                  or a tag of sixteen 0 bits
//
// The key has no presence bit. A constraint on presence can be held only
// where other bits imply it: a nonzero VID or PCP comes from a tag. It cannot
// be held for "untagged", nor for "any tag", because a null tag (VID 0,
// priority 0) looks like no tag.
#pragma once

#include <string_view>

#include "switch/flow/match.h"

namespace ofswitch {

inline constexpr uint16_t kVlanPresent = 0x1000;
inline constexpr uint16_t kVlanVidBits = 0x0fff;
inline constexpr uint16_t kVlanPcpBits = 0xe000;

// The constraint on the key for an OpenFlow constraint with presence bit.
// Throws Refused when the key cannot hold it; `word` is the place.
Masked<uint16_t> vlanKeyConstraint(Masked<uint16_t> openflow,
                                   std::string_view word);

}  // namespace ofswitch
