// SPDX-License-Identifier: BSD-3-Clause
//
// A packet's headers as the classifiers' lookup keys.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "modules/openflow/datapath/frame.h"
#include "modules/openflow/translate/acl_layout.h"

static_assert(std::endian::native == std::endian::little);

// Where the frame's L3 header lies and of what kind it is.
struct FrameL3 {
  const uint8_t* l3;
  uint16_t ethType;  // 0 for an 802.3 frame without SNAP: no L3 header
  uint16_t vlanTci;  // as in the frame: network order
};

// Behind SNAP, if that is what an 802.3 length announces, and behind one tag.
inline FrameL3 locateL3(const uint8_t* frame) {
  FrameL3 found = {frame + kEthHeaderSize, load16(frame + kEthTypeOffset), 0};
  if (found.ethType < kMinEthType) [[unlikely]] {
    const uint8_t* llc = frame + kEthHeaderSize;
    // Byte 2, the control byte, may be anything.
    const bool snap = llc[0] == 0xaa && llc[1] == 0xaa && llc[3] == 0 &&
                      llc[4] == 0 && llc[5] == 0;
    if (!snap) {
      found.ethType = 0;
      return found;
    }
    found.ethType = load16(llc + 6);
    found.l3 = llc + 8;
  }
  if (found.ethType == kEthTypeVlan) {
    std::memcpy(&found.vlanTci, found.l3, sizeof(found.vlanTci));
    found.ethType = load16(found.l3 + 2);
    found.l3 += kVlanTagSize;
  }
  return found;
}

// A MAC and the two zero bytes behind it, in one piece.
inline void buildMac(const uint8_t* mac, uint8_t* key) {
  uint64_t bytes;
  std::memcpy(&bytes, mac, sizeof(bytes));
  bytes &= 0xffff'ffff'ffff;  // little endian: the first six
  std::memcpy(key, &bytes, sizeof(bytes));
}

inline void buildL2Key(const uint8_t* frame, const FrameL3& found,
                       OfL2Key* key) {
  static_assert(sizeof(key->ethDst) == 8 && sizeof(key->ethSrc) == 8);
  buildMac(frame, key->ethDst);
  buildMac(frame + 6, key->ethSrc);
  key->vlanTci = found.vlanTci;
  store16(reinterpret_cast<uint8_t*>(key) + offsetof(OfL2Key, ethType),
          found.ethType);
}

// Both ports; `l4` points to a TCP or UDP header.
inline void buildPorts(const uint8_t* l4, OfL4Key* key) {
  std::memcpy(reinterpret_cast<uint8_t*>(key), l4, 4);
  static_assert(offsetof(OfL4Key, l4DstPort) == 2);
}

inline void buildL4Key(uint8_t proto, uint8_t icmpProto, const uint8_t* l4,
                       OfL4Key* key) {
  if (proto == kProtoTcp) {
    buildPorts(l4, key);
    key->tcpFlags = l4[13];
  } else if (proto == kProtoUdp) {
    buildPorts(l4, key);
  } else if (proto == icmpProto) {
    key->icmpType = l4[0];
    key->icmpCode = l4[1];
  }
}

// Any L4 header is taken to follow, fragment or not.
inline void buildIpv4Key(const uint8_t* l3, OfIpv4Key* key) {
  static_assert(offsetof(OfIpv4Key, ipv4Dst) ==
                offsetof(OfIpv4Key, ipv4Src) + 4);
  std::memcpy(reinterpret_cast<uint8_t*>(key) + offsetof(OfIpv4Key, ipv4Src),
              l3 + 12, 8);
  key->l4.ipTos = l3[1];
  key->l4.ipTtl = l3[8];
  key->l2.ipProto = l3[9];
  buildL4Key(l3[9], kProtoIcmp, l3 + 4 * (l3[0] & 0x0f), &key->l4);
}

// No extension headers are walked.
inline void buildIpv6Key(const uint8_t* l3, OfIpv6Key* key) {
  static_assert(offsetof(OfIpv6Key, ipv6Dst) ==
                offsetof(OfIpv6Key, ipv6Src) + 16);
  std::memcpy(reinterpret_cast<uint8_t*>(key) + offsetof(OfIpv6Key, ipv6Src),
              l3 + 8, 32);
  key->l4.ipTos = static_cast<uint8_t>(load16(l3) >> 4);
  key->l4.ipTtl = l3[7];
  key->l2.ipProto = l3[6];
  buildL4Key(l3[6], kProtoIcmpv6, l3 + kIpv6HeaderSize, &key->l4);
}

// Fills the keys asked for, whole, from the kFrameWindow bytes at `frame`. A
// packet of one family has a key of the other, too: its L2 part and `metadata`.
// A key not asked for is not touched.
template <bool kIpv4, bool kIpv6>
inline void buildKeys(const uint8_t* frame, uint64_t metadata, OfIpv4Key* ipv4,
                      OfIpv6Key* ipv6) {
  const FrameL3 found = locateL3(frame);
  if constexpr (kIpv4) {
    std::memset(static_cast<void*>(ipv4), 0, sizeof(*ipv4));
    buildL2Key(frame, found, &ipv4->l2);
    ipv4->l4.metadata = metadata;
    if (found.ethType == kEthTypeIpv4) {
      buildIpv4Key(found.l3, ipv4);
    } else if (found.ethType == kEthTypeArp) {
      std::memcpy(&ipv4->arpTpa, found.l3 + 24, 4);
    }
  }
  if constexpr (kIpv6) {
    std::memset(static_cast<void*>(ipv6), 0, sizeof(*ipv6));
    buildL2Key(frame, found, &ipv6->l2);
    ipv6->l4.metadata = metadata;
    if (found.ethType == kEthTypeIpv6) {
      buildIpv6Key(found.l3, ipv6);
    }
  }
}
