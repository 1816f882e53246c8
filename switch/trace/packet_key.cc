// SPDX-License-Identifier: BSD-3-Clause
#include "switch/trace/packet_key.h"

#include "switch/flow/encode.h"

namespace ofswitch {
namespace {

constexpr uint16_t kMinEthType = 0x0600;  // below stands an 802.3 length
constexpr uint16_t kEthTypeVlan = 0x8100;

class Reader {
 public:
  explicit Reader(std::string_view bytes) : bytes_(bytes) {}

  uint8_t byte(size_t at) const {
    return at < bytes_.size() ? static_cast<uint8_t>(bytes_[at]) : 0;
  }
  // `width` bytes in network order.
  template <class T>
  T number(size_t at, size_t width = sizeof(T)) const {
    T value = 0;
    for (size_t i = 0; i < width; i++) {
      value = static_cast<T>(value << 8 | byte(at + i));
    }
    return value;
  }

 private:
  std::string_view bytes_;
};

template <class T>
void set(Masked<T>* field, T value) {
  *field = Masked<T>::exact(value);
}

void readL4(const Reader& frame, size_t at, uint8_t icmp, Match* key) {
  switch (key->ipProto.value) {
    case kProtoTcp:
      set(&key->tcpFlags, frame.byte(at + 13));
      [[fallthrough]];
    case kProtoUdp:
      set(&key->l4Src, frame.number<uint16_t>(at));
      set(&key->l4Dst, frame.number<uint16_t>(at + 2));
      break;
    default:
      if (key->ipProto.value != icmp) break;
      set(&key->icmpType, frame.byte(at));
      set(&key->icmpCode, frame.byte(at + 1));
  }
}

// The L4 header is taken to follow, fragment or not.
void readIpv4(const Reader& frame, size_t at, Match* key) {
  set(&key->ipTos, frame.byte(at + 1));
  set(&key->ipTtl, frame.byte(at + 8));
  set(&key->ipProto, frame.byte(at + 9));
  set(&key->ipv4Src, frame.number<uint32_t>(at + 12));
  set(&key->ipv4Dst, frame.number<uint32_t>(at + 16));
  readL4(frame, at + 4u * (frame.byte(at) & 0x0f), kProtoIcmp, key);
}

// No extension headers are walked.
void readIpv6(const Reader& frame, size_t at, Match* key) {
  set(&key->ipTos, static_cast<uint8_t>(frame.number<uint16_t>(at) >> 4));
  set(&key->ipTtl, frame.byte(at + 7));
  set(&key->ipProto, frame.byte(at + 6));
  set(&key->ipv6Src, frame.number<Uint128>(at + 8));
  set(&key->ipv6Dst, frame.number<Uint128>(at + 24));
  readL4(frame, at + 40, kProtoIcmpv6, key);
}

Match emptyKey() {
  Match key;
  set<uint32_t>(&key.inPort, 0);
  key.ethSrc = {0, kMacBits};
  key.ethDst = {0, kMacBits};
  set<uint16_t>(&key.ethType, 0);
  set<uint16_t>(&key.vlanTci, 0);
  set<uint8_t>(&key.ipProto, 0);
  set<uint8_t>(&key.ipTos, 0);
  set<uint8_t>(&key.ipTtl, 0);
  set<uint32_t>(&key.ipv4Src, 0);
  set<uint32_t>(&key.ipv4Dst, 0);
  set<Uint128>(&key.ipv6Src, 0);
  set<Uint128>(&key.ipv6Dst, 0);
  set<uint32_t>(&key.arpTpa, 0);
  set<uint16_t>(&key.l4Src, 0);
  set<uint16_t>(&key.l4Dst, 0);
  set<uint8_t>(&key.tcpFlags, 0);
  set<uint8_t>(&key.icmpType, 0);
  set<uint8_t>(&key.icmpCode, 0);
  return key;
}

// Reads what both families see; answers where layer 3 starts. An 802.3 frame
// without SNAP has no layer 3 and the type 0.
size_t readL2(const Reader& frame, Match* key) {
  key->ethDst.value = frame.number<uint64_t>(0, 6);
  key->ethSrc.value = frame.number<uint64_t>(6, 6);
  auto type = frame.number<uint16_t>(12);
  size_t at = 14;
  if (type < kMinEthType) {
    const bool snap = frame.number<uint16_t>(14) == 0xaaaa &&
                      frame.number<uint32_t>(17, 3) == 0;
    if (!snap) return at;
    type = frame.number<uint16_t>(20);
    at = 22;
  }
  if (type == kEthTypeVlan) {
    set(&key->vlanTci, frame.number<uint16_t>(at));
    type = frame.number<uint16_t>(at + 2);
    at += 4;
  }
  set(&key->ethType, type);
  return at;
}

}  // namespace

Match packetKey(std::string_view bytes, uint16_t inPort, bool ipv6) {
  const Reader frame(bytes);
  Match key = emptyKey();
  set<uint32_t>(&key.inPort, inPort);
  const size_t at = readL2(frame, &key);
  if (ipv6) {
    if (key.isIpv6()) readIpv6(frame, at, &key);
  } else if (key.isIpv4()) {
    readIpv4(frame, at, &key);
  } else if (key.isEthType(kEthTypeArp)) {
    set(&key.arpTpa, frame.number<uint32_t>(at + 24));
  }
  return key;
}

Match packetKey(std::string_view bytes, uint16_t inPort) {
  const Match key = packetKey(bytes, inPort, false);
  return key.isIpv6() ? packetKey(bytes, inPort, true) : key;
}

}  // namespace ofswitch
