// SPDX-License-Identifier: BSD-3-Clause
//
// Header rewrites. L4 checksums are updated from the differences of what
// changed (RFC 1624), the IPv4 header's is computed anew. One's-complement sums
// do not depend on byte order, so words are summed as they lie in memory; nor
// on the size of the words, so 32 bits are summed at once.
//
// What changes is put together in registers, and stored when nothing will be
// read of it: a load has to wait for stores that are narrower than itself.
#include "modules/openflow/datapath/rewrite.h"

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "modules/openflow/datapath/frame.h"

static_assert(std::endian::native == std::endian::little);

namespace {

constexpr size_t kMacsSize = 12;
constexpr size_t kTaggedL2Size = kMacsSize + kVlanTagSize;
constexpr size_t kTcpChecksumOffset = 16;
constexpr size_t kUdpChecksumOffset = 6;
constexpr size_t kIcmpChecksumOffset = 2;

// A one's-complement sum of less than 2^16 words, each of up to 32 bits, in 16
// bits; 0 only of nothing but zeros.
uint16_t fold(uint64_t sum) {
  sum = (sum & 0xffff'ffff) + (sum >> 32);  // below 2^32 + 2^16
  sum = (sum & 0xffff) + (sum >> 16);       // below 2^17 - 1
  return static_cast<uint16_t>((sum & 0xffff) + (sum >> 16));
}

// The difference that replacing `from` by `to` makes: ~m + m' of RFC 1624.
template <typename Word>
uint64_t difference(Word from, Word to) {
  return uint64_t{static_cast<Word>(~from)} + to;
}

uint64_t replacePort(uint8_t* bytes, uint16_t port) {
  const uint64_t diff = difference(loadWord<uint16_t>(bytes), port);
  storeWord(bytes, port);
  return diff;
}

// HC' = ~(~HC + ~m + m'); 0 is written as 0, also for UDP.
void updateChecksum(uint8_t* checksum, uint64_t diff) {
  const auto old = static_cast<uint16_t>(~loadWord<uint16_t>(checksum));
  storeWord(checksum, static_cast<uint16_t>(~fold(old + diff)));
}

// TCP or UDP. `diff` is what the address rewrites changed in the pseudo-header;
// `checksumOptional` is true where a zero checksum means none (UDP over IPv4).
void rewritePorts(uint8_t* l4, uint8_t* checksum, uint64_t diff,
                  bool checksumOptional, const OfFlowAction& action) {
  if (action.fields.setL4SrcPort) {
    diff += replacePort(l4, action.values.l4SrcPort);
  }
  if (action.fields.setL4DstPort) {
    diff += replacePort(l4 + 2, action.values.l4DstPort);
  }
  if (diff != 0 && !(checksumOptional && loadWord<uint16_t>(checksum) == 0)) {
    updateChecksum(checksum, diff);
  }
}

void rewriteIcmp(uint8_t* l4, const OfFlowAction& action) {
  const auto before = loadWord<uint16_t>(l4);
  uint16_t after = before;  // the type is the low byte
  if (action.fields.setIcmpType) {
    after = static_cast<uint16_t>((after & 0xff00) | action.values.icmpType);
  }
  if (action.fields.setIcmpCode) {
    after =
        static_cast<uint16_t>((after & 0x00ff) | action.values.icmpCode << 8);
  }
  if (after != before) {
    storeWord(l4, after);
    updateChecksum(l4 + kIcmpChecksumOffset, difference(before, after));
  }
}

// The sum of an IPv4 header's options: whole words behind the first 20 bytes.
uint64_t sumOptions(const uint8_t* l3, size_t headerSize) {
  uint64_t sum = 0;
  for (size_t at = kIpv4HeaderSize; at < headerSize; at += 4) {
    sum += loadWord<uint32_t>(l3 + at);
  }
  return sum;
}

void rewriteIpv4(uint8_t* l3, const OfFlowAction& action, uint32_t bits) {
  const OfActionFields& fields = action.fields;
  const size_t headerSize = 4 * (l3[0] & 0x0f);
  const uint8_t proto = l3[9];
  uint64_t diff = 0;
  if (bits & kRewriteIpBits) {
    auto tos = loadWord<uint32_t>(l3);  // version and IHL, TOS, total length
    auto ttl = loadWord<uint32_t>(l3 + 8);  // TTL, protocol, checksum
    auto src = loadWord<uint32_t>(l3 + 12);
    auto dst = loadWord<uint32_t>(l3 + 16);
    if (fields.decTtl) {
      // Wraps: a flow that must not send TTL 0 has to match on it.
      ttl = (ttl & 0xffff'ff00) | ((ttl - 1) & 0xff);
    }
    if (fields.setIpTos) {
      tos = (tos & 0xffff'00ff) | uint32_t{action.values.ipTos} << 8;
      l3[1] = action.values.ipTos;
    }
    if (fields.setIpv4Src) {
      diff += difference(src, action.values.ipv4Src);
      src = action.values.ipv4Src;
      storeWord(l3 + 12, src);
    }
    if (fields.setIpv4Dst) {
      diff += difference(dst, action.values.ipv4Dst);
      dst = action.values.ipv4Dst;
      storeWord(l3 + 16, dst);
    }
    // Over 4 x IHL bytes; an IHL below 5 has no checksum worth the name and
    // gets 0.
    ttl &= 0x0000'ffff;
    if (headerSize >= kIpv4HeaderSize) {
      const uint64_t sum = uint64_t{tos} + loadWord<uint32_t>(l3 + 4) + ttl +
                           src + dst + sumOptions(l3, headerSize);
      ttl |= uint32_t{static_cast<uint16_t>(~fold(sum))} << 16;
    }
    storeWord(l3 + 8, ttl);
  }
  if (diff == 0 && !(bits & kRewriteL4Bits)) {
    return;
  }
  uint8_t* l4 = l3 + headerSize;
  if (proto == kProtoTcp) {
    rewritePorts(l4, l4 + kTcpChecksumOffset, diff, false, action);
  } else if (proto == kProtoUdp) {
    rewritePorts(l4, l4 + kUdpChecksumOffset, diff, true, action);
  } else if (proto == kProtoIcmp) {
    rewriteIcmp(l4, action);
  }
}

// Addresses are never rewritten.
void rewriteIpv6(uint8_t* l3, const OfFlowAction& action, uint32_t bits) {
  const uint8_t proto = l3[6];
  if (action.fields.decTtl) {
    l3[7]--;
  }
  if (action.fields.setIpTos) {
    // version (4 bits), traffic class (8), flow label (20)
    store16(l3, static_cast<uint16_t>((load16(l3) & 0xf00f) |
                                      action.values.ipTos << 4));
  }
  if (!(bits & kRewriteL4Bits)) {
    return;
  }
  uint8_t* l4 = l3 + kIpv6HeaderSize;
  if (proto == kProtoTcp) {
    rewritePorts(l4, l4 + kTcpChecksumOffset, 0, false, action);
  } else if (proto == kProtoUdp) {
    rewritePorts(l4, l4 + kUdpChecksumOffset, 0, false, action);
  } else if (proto == kProtoIcmpv6) {
    rewriteIcmp(l4, action);
  }
}

// Everything but the tag itself, on kFrameWindow bytes.
void rewriteHeaders(uint8_t* frame, const OfFlowAction& action, uint32_t bits) {
  if ((bits & kRewriteMacBits) == kRewriteMacBits) {
    static_assert(offsetof(OfActionValues, ethSrc) == 6);
    std::memcpy(frame, &action.values, kMacsSize);
  } else if (action.fields.setEthDst) {
    std::memcpy(frame, action.values.ethDst, 6);
  } else if (action.fields.setEthSrc) {
    std::memcpy(frame + 6, action.values.ethSrc, 6);
  }
  if (!(bits & (kRewritePcpBit | kRewriteIpBits | kRewriteL4Bits))) {
    return;
  }
  uint8_t* l3 = frame + kEthHeaderSize;
  if (load16(frame + kEthTypeOffset) == kEthTypeVlan) {
    if (bits & kRewritePcpBit) {
      const auto priority = static_cast<uint16_t>(action.values.vlanPcp << 13);
      store16(l3, (load16(l3) & 0x1fff) | priority);
    }
    l3 += kVlanTagSize;
  }
  const uint16_t ethType = load16(l3 - 2);
  if (ethType == kEthTypeIpv4) {
    rewriteIpv4(l3, action, bits);
  } else if (ethType == kEthTypeIpv6) {
    rewriteIpv6(l3, action, bits);
  }
}

void popVlan(bess::Packet* packet) {
  if (bufferBytes(*packet) < kTaggedL2Size) {
    return;
  }
  auto* frame = packet->head_data<uint8_t*>();
  const uint16_t ethType = load16(frame + kEthTypeOffset);
  if ((ethType != kEthTypeVlan && ethType != kEthTypeQinQ) ||
      packet->head_len() < static_cast<int>(kVlanTagSize)) {
    return;
  }
  std::memmove(frame + kVlanTagSize, frame, kMacsSize);
  packet->adj(kVlanTagSize);
}

// `vid` is in network order and used with all its 16 bits.
void setVlanVid(bess::Packet* packet, uint16_t vid) {
  const size_t available = bufferBytes(*packet);
  if (available < kEthHeaderSize) {
    return;
  }
  auto* frame = packet->head_data<uint8_t*>();
  if (load16(frame + kEthTypeOffset) == kEthTypeVlan) {
    if (available < kTaggedL2Size) {
      return;
    }
    uint8_t* tci = frame + kEthHeaderSize;
    // The first byte has PCP and DEI in its upper half.
    const auto kept = static_cast<uint16_t>(loadWord<uint16_t>(tci) & 0x00f0);
    storeWord(tci, static_cast<uint16_t>(vid | kept));
    return;
  }
  auto* tagged = static_cast<uint8_t*>(packet->prepend(kVlanTagSize));
  if (tagged == nullptr) {
    return;
  }
  std::memmove(tagged, frame, kMacsSize);
  store16(tagged + kEthTypeOffset, kEthTypeVlan);
  storeWord(tagged + kEthHeaderSize, vid);
}

// Of a frame that starts too near its buffer's end a copy is rewritten, and
// what fits is taken over.
[[gnu::noinline]] void rewriteNearEnd(bess::Packet* packet,
                                      const OfFlowAction& action,
                                      uint32_t bits) {
  auto* frame = packet->head_data<uint8_t*>();
  const size_t available = bufferBytes(*packet);
  uint8_t window[kFrameWindow] = {};
  std::memcpy(window, frame, available);
  rewriteHeaders(window, action, bits);
  std::memcpy(frame, window, available);
}

void rewriteBehindTag(bess::Packet* packet, const OfFlowAction& action,
                      uint32_t bits) {
  if (hasWindow(*packet)) [[likely]] {
    rewriteHeaders(packet->head_data<uint8_t*>(), action, bits);
  } else {
    rewriteNearEnd(packet, action, bits);
  }
}

// A tag is popped, then another one set or pushed, before anything else.
[[gnu::noinline]] void rewriteWithTag(bess::Packet* packet,
                                      const OfFlowAction& action,
                                      uint32_t bits) {
  if (action.fields.popVlan) {
    popVlan(packet);
  }
  if (action.fields.setVlanVid) {
    setVlanVid(packet, action.values.vlanVid);
  }
  rewriteBehindTag(packet, action, bits);
}

}  // namespace

// Calls that come last need no stack of this function's own.
void rewritePacket(bess::Packet* packet, const OfFlowAction& action) {
  const uint32_t bits = actionBits(action);
  if (bits & kRewriteTagBits) [[unlikely]] {
    rewriteWithTag(packet, action, bits);
  } else {
    rewriteBehindTag(packet, action, bits);
  }
}
