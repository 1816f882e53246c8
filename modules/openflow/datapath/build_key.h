// SPDX-License-Identifier: BSD-3-Clause
//
// A packet's headers as the classifiers' lookup keys.
#pragma once

#include <tmmintrin.h>

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

// Keys are written in whole words, each over all bytes that the classifier
// reads as one: it would have to wait for words put together from bytes.

// The fields of an L4 header that keys have, and two of the IP header, which
// lie between them. Zero where the packet has none.
struct L4Words {
  uint64_t ports = 0;  // to icmpCode; the first byte is the lowest
  uint32_t flags = 0;  // tcpFlags and padding
};
static_assert(offsetof(OfL4Key, l4SrcPort) == 0);
static_assert(offsetof(OfL4Key, l4DstPort) == 2);
static_assert(offsetof(OfL4Key, ipTos) == 4 && offsetof(OfL4Key, ipTtl) == 5);
static_assert(offsetof(OfL4Key, icmpType) == 6);
static_assert(offsetof(OfL4Key, icmpCode) == 7);
static_assert(offsetof(OfL4Key, tcpFlags) == 8);

inline L4Words loadL4(uint8_t proto, uint8_t icmpProto, uint8_t tos,
                      uint8_t ttl, const uint8_t* l4) {
  L4Words words;
  words.ports = uint64_t{tos} << 32 | uint64_t{ttl} << 40;
  if (proto == kProtoUdp) {
    words.ports |= loadWord<uint32_t>(l4);
  } else if (proto == kProtoTcp) {
    words.ports |= loadWord<uint32_t>(l4);
    words.flags = l4[13];
  } else if (proto == icmpProto) {
    words.ports |= uint64_t{loadWord<uint16_t>(l4)} << 48;  // type, code
  }
  return words;
}

// `proto` is 0 where the key's family is not the packet's.
inline void buildL2Key(const uint8_t* frame, const FrameL3& found,
                       uint8_t proto, OfL2Key* key) {
  static_assert(offsetof(OfL2Key, ethDst) == offsetof(OfL2Key, ethSrc) + 8);
  // Source, then destination; -1 makes one of the zero bytes behind each.
  const __m128i order =
      _mm_setr_epi8(6, 7, 8, 9, 10, 11, -1, -1, 0, 1, 2, 3, 4, 5, -1, -1);
  const __m128i macs = _mm_loadu_si128(reinterpret_cast<const __m128i*>(frame));
  key->ipProto = proto;
  auto* bytes = reinterpret_cast<uint8_t*>(key);
  _mm_storeu_si128(
      reinterpret_cast<__m128i*>(bytes + offsetof(OfL2Key, ethSrc)),
      _mm_shuffle_epi8(macs, order));
  static_assert(offsetof(OfL2Key, ethType) == offsetof(OfL2Key, vlanTci) + 2);
  storeWord<uint32_t>(
      bytes + offsetof(OfL2Key, vlanTci),
      found.vlanTci | uint32_t{__builtin_bswap16(found.ethType)} << 16);
}

inline void buildL4Key(const L4Words& words, uint64_t metadata, OfL4Key* key) {
  auto* bytes = reinterpret_cast<uint8_t*>(key);
  storeWord(bytes, words.ports);
  storeWord(bytes + offsetof(OfL4Key, tcpFlags), words.flags);
  storeWord(bytes + offsetof(OfL4Key, metadata), metadata);
}

// Any L4 header is taken to follow, fragment or not.
inline void buildIpv4Key(const uint8_t* frame, const FrameL3& found,
                         size_t headerSize, uint64_t metadata, OfIpv4Key* key) {
  const uint8_t* l3 = found.l3;
  uint8_t proto = 0;
  uint32_t arpTpa = 0;
  uint64_t addresses = 0;
  L4Words l4;
  if (found.ethType == kEthTypeIpv4) {
    proto = l3[9];
    addresses = loadWord<uint64_t>(l3 + 12);
    l4 = loadL4(proto, kProtoIcmp, l3[1], l3[8], l3 + headerSize);
  } else if (found.ethType == kEthTypeArp) {
    arpTpa = loadWord<uint32_t>(l3 + 24);
  }
  static_assert(offsetof(OfIpv4Key, ipv4Dst) ==
                offsetof(OfIpv4Key, ipv4Src) + 4);
  buildL2Key(frame, found, proto, &key->l2);
  storeWord(reinterpret_cast<uint8_t*>(key) + offsetof(OfIpv4Key, arpTpa),
            arpTpa);
  storeWord(reinterpret_cast<uint8_t*>(key) + offsetof(OfIpv4Key, ipv4Src),
            addresses);
  buildL4Key(l4, metadata, &key->l4);
}

// No extension headers are walked.
inline void buildIpv6Key(const uint8_t* frame, const FrameL3& found,
                         uint64_t metadata, OfIpv6Key* key) {
  const uint8_t* l3 = found.l3;
  static_assert(offsetof(OfIpv6Key, ipv6Dst) ==
                offsetof(OfIpv6Key, ipv6Src) + 16);
  if (found.ethType != kEthTypeIpv6) {
    buildL2Key(frame, found, 0, &key->l2);
    std::memset(key->ipv6Src, 0, sizeof(key->ipv6Src));
    std::memset(key->ipv6Dst, 0, sizeof(key->ipv6Dst));
    buildL4Key({}, metadata, &key->l4);
    return;
  }
  const uint8_t proto = l3[6];
  buildL2Key(frame, found, proto, &key->l2);
  std::memcpy(key->ipv6Src, l3 + 8, sizeof(key->ipv6Src));
  std::memcpy(key->ipv6Dst, l3 + 24, sizeof(key->ipv6Dst));
  const auto trafficClass = static_cast<uint8_t>(load16(l3) >> 4);
  buildL4Key(
      loadL4(proto, kProtoIcmpv6, trafficClass, l3[7], l3 + kIpv6HeaderSize),
      metadata, &key->l4);
}

// Untagged, IPv4, without options.
inline bool isPlainIpv4(const uint8_t* frame) {
  // The type as it lies in the frame; the header's length, in words, is the
  // lower half of the byte behind it.
  constexpr uint32_t kTypeAndLength = 0x0008 | 5u << 16;
  return (loadWord<uint32_t>(frame + kEthTypeOffset) & 0x000f'ffff) ==
         kTypeAndLength;
}

// Fills the keys asked for, whole, from the kFrameWindow bytes at `frame`. A
// packet of one family has a key of the other, too: its L2 part and `metadata`.
// A key not asked for is not touched.
template <bool kIpv4, bool kIpv6>
inline void buildKeys(const uint8_t* frame, uint64_t metadata, OfIpv4Key* ipv4,
                      OfIpv6Key* ipv6) {
  const auto build = [&](const FrameL3& found, size_t ipv4HeaderSize) {
    if constexpr (kIpv4) {
      buildIpv4Key(frame, found, ipv4HeaderSize, metadata, ipv4);
    }
    if constexpr (kIpv6) {
      buildIpv6Key(frame, found, metadata, ipv6);
    }
  };
  // Untagged packets without IP options have everything at places that are
  // known beforehand, which saves a quarter of the work.
  if (isPlainIpv4(frame)) [[likely]] {
    build({frame + kEthHeaderSize, kEthTypeIpv4, 0}, kIpv4HeaderSize);
  } else if (load16(frame + kEthTypeOffset) == kEthTypeIpv6) {
    build({frame + kEthHeaderSize, kEthTypeIpv6, 0}, 0);
  } else {
    const FrameL3 found = locateL3(frame);
    build(found, 4 * (found.l3[0] & 0x0f));
  }
}
