// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdint>

namespace ofswitch {

__extension__ typedef unsigned __int128 Uint128;

// A value of which only the bits in `mask` are compared. Value bits outside
// the mask are 0, so that equal constraints compare equal.
template <class T>
struct Masked {
  T value{};
  T mask{};

  static Masked exact(T value) { return {value, static_cast<T>(~T{})}; }
  bool any() const { return mask == 0; }
  bool isExact() const { return static_cast<T>(~mask) == 0; }
  bool operator==(const Masked&) const = default;
};

inline constexpr uint16_t kEthTypeIpv4 = 0x0800;
inline constexpr uint16_t kEthTypeArp = 0x0806;
inline constexpr uint16_t kEthTypeRarp = 0x8035;
inline constexpr uint16_t kEthTypeIpv6 = 0x86dd;
inline constexpr uint8_t kProtoIcmp = 1;
inline constexpr uint8_t kProtoTcp = 6;
inline constexpr uint8_t kProtoUdp = 17;
inline constexpr uint8_t kProtoIcmpv6 = 58;
inline constexpr uint8_t kProtoSctp = 132;

// MAC addresses are the low 48 bits of a number, first byte on top.
inline constexpr uint64_t kMacBits = 0xffffffffffff;

// What a flow matches, in the terms of the module's classifier key. A member
// whose mask is 0 does not constrain. All numbers are in host order.
struct Match {
  Masked<uint32_t> inPort;
  Masked<uint64_t> ethSrc;
  Masked<uint64_t> ethDst;
  Masked<uint16_t> ethType;
  // The 802.1Q tag control word, 0 for an untagged frame. Never compares bit
  // 0x1000: OpenFlow gives it a meaning that the key does not have, and the
  // reader resolves it (see vlan_tci.h).
  Masked<uint16_t> vlanTci;
  Masked<uint8_t> ipProto;
  Masked<uint8_t> ipTos;
  Masked<uint8_t> ipTtl;
  Masked<uint32_t> ipv4Src;
  Masked<uint32_t> ipv4Dst;
  Masked<Uint128> ipv6Src;
  Masked<Uint128> ipv6Dst;
  Masked<uint32_t> arpTpa;
  Masked<uint16_t> l4Src;
  Masked<uint16_t> l4Dst;
  Masked<uint8_t> tcpFlags;
  Masked<uint8_t> icmpType;
  Masked<uint8_t> icmpCode;

  bool operator==(const Match&) const = default;

  bool isEthType(uint16_t type) const {
    return ethType == Masked<uint16_t>::exact(type);
  }
  bool isIpv4() const { return isEthType(kEthTypeIpv4); }
  bool isIpv6() const { return isEthType(kEthTypeIpv6); }
  bool isIp() const { return isIpv4() || isIpv6(); }
  bool isIpProto(uint8_t proto) const {
    return isIp() && ipProto == Masked<uint8_t>::exact(proto);
  }
  bool isTcp() const { return isIpProto(kProtoTcp); }
  bool isUdp() const { return isIpProto(kProtoUdp); }
  bool isIcmpv4() const { return isIpv4() && isIpProto(kProtoIcmp); }
  bool isIcmpv6() const { return isIpv6() && isIpProto(kProtoIcmpv6); }
  // A tag control word with any bit set can only come from a tag.
  bool isTagged() const { return vlanTci.value != 0; }
};

}  // namespace ofswitch
