// SPDX-License-Identifier: BSD-3-Clause
//
// The lookup keys of a packet, field by field, as key tests state them.
#pragma once

#include "tests/datapath/datapath_test.h"

namespace openflow_test {

// Layer 3 and 4 fields of one key.
struct Layers {
  uint8_t proto = 0;
  uint8_t tos = 0;
  uint8_t ttl = 0;
  uint16_t l4Src = 0;
  uint16_t l4Dst = 0;
  uint8_t tcpFlags = 0;
  uint8_t icmpType = 0;
  uint8_t icmpCode = 0;
};

struct KeyFields {
  uint16_t ethType = 0;
  uint16_t vlanTci = 0;
  Layers ipv4 = {};
  uint32_t arpTpa = 0;
  uint32_t ipv4Src = 0;
  uint32_t ipv4Dst = 0;
  Layers ipv6 = {};
  Ip6 ipv6Src{};
  Ip6 ipv6Dst{};
  uint64_t metadata = 0;
  Mac ethDst = kDstMac;
  Mac ethSrc = kSrcMac;
};

// The keys as the bytes that the classifiers read.
Bytes ipv4KeyBytes(const KeyFields& key);
Bytes ipv6KeyBytes(const KeyFields& key);

// A flow that matches exactly the packets that have this key in the family, and
// sends them out of gate 2.
Flow exactFlow(const KeyFields& key, Family family);

// Two frames, the layers they have in common, and their keys with any layers.
inline const Frame kTcp4 = Frame::eth().ipv4(kIpA, kIpB).tcp(7, 80, 0x12);
inline const Frame kTcp6 = Frame::eth().ipv6(kIp6A, kIp6B).tcp(7, 80, 0x12);
inline const Layers kTcpLayers = {
    .proto = 6, .ttl = 64, .l4Src = 7, .l4Dst = 80, .tcpFlags = 0x12};
KeyFields key4(const Layers& layers);
KeyFields key6(const Layers& layers);

}  // namespace openflow_test
