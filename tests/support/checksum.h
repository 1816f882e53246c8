// SPDX-License-Identifier: BSD-3-Clause
//
// Internet checksums, always summed in full: what an incremental update must
// agree with.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "tests/support/bytes.h"

namespace openflow_test {

// The sum of the bytes as big-endian 16-bit words, an odd last byte being the
// high one; not folded.
uint32_t onesSum(const uint8_t* data, size_t length);

uint16_t foldSum(uint32_t sum);

// Verifies every checksum of an Ethernet frame, tagged or behind SNAP or not:
// IPv4 header, and TCP, UDP, ICMP or ICMPv6 directly behind the IP header
// unless the packet is a fragment. Empty when all verify, otherwise which one
// does not. A UDP checksum of 0 over IPv4 is none and passes.
std::string checksumError(const Bytes& frame);

}  // namespace openflow_test
