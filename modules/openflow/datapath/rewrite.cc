// SPDX-License-Identifier: BSD-3-Clause
//
// Header rewrites. L4 checksums are updated from the differences of what
// changed (RFC 1624), the IPv4 header's is computed anew. One's-complement sums
// do not depend on byte order, so words are summed as they lie in memory.
#include "modules/openflow/datapath/rewrite.h"

#include <cstdint>
#include <cstring>

#include "modules/openflow/datapath/frame.h"

namespace {

constexpr size_t kMacsSize = 12;
constexpr size_t kTaggedL2Size = kMacsSize + kVlanTagSize;
constexpr size_t kTcpChecksumOffset = 16;
constexpr size_t kUdpChecksumOffset = 6;
constexpr size_t kIcmpChecksumOffset = 2;
constexpr size_t kIpv4ChecksumOffset = 10;

uint16_t loadRaw16(const uint8_t* bytes) {
  uint16_t word;
  std::memcpy(&word, bytes, sizeof(word));
  return word;
}

void storeRaw16(uint8_t* bytes, uint16_t word) {
  std::memcpy(bytes, &word, sizeof(word));
}

uint16_t fold(uint32_t sum) {
  sum = (sum & 0xffff) + (sum >> 16);
  sum = (sum & 0xffff) + (sum >> 16);
  return static_cast<uint16_t>(sum);
}

// The difference that replacing `from` by `to` makes: ~m + m' of RFC 1624.
uint32_t difference(uint16_t from, uint16_t to) {
  return static_cast<uint16_t>(~from) + uint32_t{to};
}

uint32_t replace16(uint8_t* bytes, uint16_t value) {
  const uint32_t diff = difference(loadRaw16(bytes), value);
  storeRaw16(bytes, value);
  return diff;
}

uint32_t replace32(uint8_t* bytes, uint32_t value) {
  uint16_t halves[2];
  std::memcpy(halves, &value, sizeof(halves));
  return replace16(bytes, halves[0]) + replace16(bytes + 2, halves[1]);
}

// HC' = ~(~HC + ~m + m'); 0 is written as 0, also for UDP.
void updateChecksum(uint8_t* checksum, uint32_t diff) {
  const uint16_t old = loadRaw16(checksum);
  storeRaw16(checksum,
             static_cast<uint16_t>(~fold(static_cast<uint16_t>(~old) + diff)));
}

// Over 4 x IHL bytes; an IHL below 5 has no checksum worth the name and gets 0.
void computeIpv4Checksum(uint8_t* l3, size_t headerSize) {
  storeRaw16(l3 + kIpv4ChecksumOffset, 0);
  if (headerSize < 20) {
    return;
  }
  uint32_t sum = 0;
  for (size_t at = 0; at < headerSize; at += 2) {
    sum += loadRaw16(l3 + at);
  }
  storeRaw16(l3 + kIpv4ChecksumOffset, static_cast<uint16_t>(~fold(sum)));
}

// TCP or UDP. `diff` is what the address rewrites changed in the pseudo-header;
// `checksumOptional` is true where a zero checksum means none (UDP over IPv4).
void rewritePorts(uint8_t* l4, uint8_t* checksum, uint32_t diff,
                  bool checksumOptional, const OfFlowAction& action) {
  if (action.fields.setL4SrcPort) {
    diff += replace16(l4, action.values.l4SrcPort);
  }
  if (action.fields.setL4DstPort) {
    diff += replace16(l4 + 2, action.values.l4DstPort);
  }
  if (diff != 0 && !(checksumOptional && loadRaw16(checksum) == 0)) {
    updateChecksum(checksum, diff);
  }
}

void rewriteIcmp(uint8_t* l4, const OfFlowAction& action) {
  const uint16_t before = loadRaw16(l4);
  if (action.fields.setIcmpType) {
    l4[0] = action.values.icmpType;
  }
  if (action.fields.setIcmpCode) {
    l4[1] = action.values.icmpCode;
  }
  const uint16_t after = loadRaw16(l4);
  if (after != before) {
    updateChecksum(l4 + kIcmpChecksumOffset, difference(before, after));
  }
}

void rewriteIpv4(uint8_t* l3, const OfFlowAction& action) {
  const OfActionFields& fields = action.fields;
  const size_t headerSize = 4 * (l3[0] & 0x0f);
  const uint8_t proto = l3[9];
  uint32_t diff = 0;
  if (fields.decTtl) {
    l3[8]--;  // wraps: a flow that must not send TTL 0 has to match on it
  }
  if (fields.setIpTos) {
    l3[1] = action.values.ipTos;
  }
  if (fields.setIpv4Src) {
    diff += replace32(l3 + 12, action.values.ipv4Src);
  }
  if (fields.setIpv4Dst) {
    diff += replace32(l3 + 16, action.values.ipv4Dst);
  }
  if (fields.decTtl | fields.setIpTos | fields.setIpv4Src | fields.setIpv4Dst) {
    computeIpv4Checksum(l3, headerSize);
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
void rewriteIpv6(uint8_t* l3, const OfFlowAction& action) {
  const uint8_t proto = l3[6];
  if (action.fields.decTtl) {
    l3[7]--;
  }
  if (action.fields.setIpTos) {
    // version (4 bits), traffic class (8), flow label (20)
    store16(l3, static_cast<uint16_t>((load16(l3) & 0xf00f) |
                                      action.values.ipTos << 4));
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
void rewriteHeaders(uint8_t* frame, const OfFlowAction& action) {
  if (action.fields.setEthDst) {
    std::memcpy(frame, action.values.ethDst, 6);
  }
  if (action.fields.setEthSrc) {
    std::memcpy(frame + 6, action.values.ethSrc, 6);
  }
  uint8_t* l3 = frame + kEthHeaderSize;
  if (load16(frame + kEthTypeOffset) == kEthTypeVlan) {
    if (action.fields.setVlanPcp) {
      const auto priority = static_cast<uint16_t>(action.values.vlanPcp << 13);
      store16(l3, (load16(l3) & 0x1fff) | priority);
    }
    l3 += kVlanTagSize;
  }
  const uint16_t ethType = load16(l3 - 2);
  if (ethType == kEthTypeIpv4) {
    rewriteIpv4(l3, action);
  } else if (ethType == kEthTypeIpv6) {
    rewriteIpv6(l3, action);
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
    const auto kept = static_cast<uint8_t>(tci[0] & 0xf0);  // PCP and DEI
    storeRaw16(tci, vid);
    tci[0] |= kept;
    return;
  }
  auto* tagged = static_cast<uint8_t*>(packet->prepend(kVlanTagSize));
  if (tagged == nullptr) {
    return;
  }
  std::memmove(tagged, frame, kMacsSize);
  store16(tagged + kEthTypeOffset, kEthTypeVlan);
  storeRaw16(tagged + kEthHeaderSize, vid);
}

}  // namespace

void rewritePacket(bess::Packet* packet, const OfFlowAction& action) {
  if (action.fields.popVlan) {
    popVlan(packet);
  }
  if (action.fields.setVlanVid) {
    setVlanVid(packet, action.values.vlanVid);
  }
  auto* frame = packet->head_data<uint8_t*>();
  const size_t available = bufferBytes(*packet);
  if (available >= kFrameWindow) [[likely]] {
    rewriteHeaders(frame, action);
    return;
  }
  // The frame starts too near its buffer's end: rewrite a copy, and take over
  // what fits.
  uint8_t window[kFrameWindow] = {};
  std::memcpy(window, frame, available);
  rewriteHeaders(window, action);
  std::memcpy(frame, window, available);
}
