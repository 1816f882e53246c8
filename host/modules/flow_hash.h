// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdint>

namespace bess {

// A number that is the same for all frames of one flow in one direction: of
// addresses, protocol and ports for IPv4 and IPv6 (behind up to two VLAN tags),
// of the MAC addresses otherwise. Fragments count by addresses and protocol, so
// that all of them stay together.
uint32_t FlowHash(const uint8_t* frame, uint32_t len);

}  // namespace bess
