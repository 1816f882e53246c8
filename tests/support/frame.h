// SPDX-License-Identifier: BSD-3-Clause
//
// A frame written in words, layer by layer, with the lengths and checksums a
// correct sender would give it:
//
//     Frame::eth().vlan(5).ipv4(ip4("10.0.0.1"), ip4("10.0.0.2")).tcp(7,
//     80).payload("hello")
//
// Words that spoil a frame (rawIhl, udpNoChecksum, patch, keep, cut) take
// effect on the finished bytes, lengths and checksums having been computed for
// the frame as it would have been.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "tests/support/bytes.h"

namespace openflow_test {

inline constexpr Mac kDstMac = {0x02, 0x00, 0x00, 0x00, 0x00, 0x0d};
inline constexpr Mac kSrcMac = {0x02, 0x00, 0x00, 0x00, 0x00, 0x05};

class Frame {
 public:
  static Frame eth(const Mac& dst = kDstMac, const Mac& src = kSrcMac);

  // Layer 2, in the order in which the words stand.
  Frame& vlan(uint16_t vid, uint8_t pcp = 0, bool dei = false);
  Frame& qinq(uint16_t vid, uint8_t pcp = 0);  // EtherType 0x88A8
  Frame& tag(uint16_t type, uint16_t tci);
  // 802.3 length and LLC/SNAP; what follows sits behind the SNAP header.
  Frame& snap(uint8_t control = 0x03, uint32_t oui = 0);
  // 802.3 length and a bare LLC header; there is no EtherType.
  Frame& llc(uint8_t dsap, uint8_t ssap, uint8_t control = 0x03);
  // Instead of the EtherType that the layer 3 words imply.
  Frame& ethType(uint16_t type);

  // Layer 3.
  Frame& ipv4(uint32_t src, uint32_t dst);
  Frame& ipv6(const Ip6& src, const Ip6& dst);
  Frame& arp(uint32_t spa, uint32_t tpa, uint16_t operation = 1);
  Frame& ttl(uint8_t value);  // hop limit
  Frame& tos(uint8_t value);  // traffic class
  Frame& flowLabel(uint32_t value);
  Frame& proto(uint8_t value);  // instead of the one layer 4 implies
  Frame& options(uint8_t ihl);  // header of 4 x ihl bytes, 5 to 15
  Frame& rawIhl(uint8_t ihl);   // only the field says so
  Frame& fragment(uint16_t offset8, bool more);  // offset in 8 bytes
  Frame& hopByHop();

  // Layer 4.
  Frame& tcp(uint16_t src, uint16_t dst, uint8_t flags = 0x18);
  Frame& udp(uint16_t src, uint16_t dst);
  Frame& udpNoChecksum();
  Frame& icmp(uint8_t type, uint8_t code);  // ICMPv6 behind ipv6()

  Frame& payload(const std::string& text);
  Frame& payload(Bytes bytes);
  Frame& payload(size_t length);  // bytes that count up

  Frame& patch(size_t offset, Bytes bytes);
  Frame& keep(size_t length);  // no more than the first `length` bytes
  Frame& cut(size_t length);   // without the last `length` bytes

  Bytes bytes() const;
  operator Bytes() const { return bytes(); }

 private:
  struct Tag {
    uint16_t type, tci;
  };
  struct Snap {
    uint8_t control;
    uint32_t oui;
  };
  struct Llc {
    uint8_t dsap, ssap, control;
  };
  struct Ipv4 {
    uint32_t src, dst;
    uint8_t headerWords = 5;
    std::optional<uint8_t> rawIhl;
    uint16_t fragment = 0;
  };
  struct Ipv6 {
    Ip6 src, dst;
    uint32_t flowLabel = 0;
    bool hopByHop = false;
  };
  struct Arp {
    uint32_t spa, tpa;
    uint16_t operation;
  };
  struct Tcp {
    uint16_t src, dst;
    uint8_t flags;
  };
  struct Udp {
    uint16_t src, dst;
    bool checksum = true;
  };
  struct Icmp {
    uint8_t type, code;
  };

  uint8_t l4Proto() const;
  uint16_t impliedEthType() const;
  Bytes l4Bytes() const;
  Bytes l3Bytes() const;
  void appendIpv4(const Ipv4& ip, const Bytes& l4, Bytes* out) const;
  void appendIpv6(const Ipv6& ip, const Bytes& l4, Bytes* out) const;
  void appendArp(const Arp& arp, Bytes* out) const;
  uint32_t pseudoHeaderSum(size_t l4Length) const;

  Mac dst_, src_;
  std::vector<std::variant<Tag, Snap, Llc>> l2_;
  std::optional<uint16_t> ethType_;
  std::variant<std::monostate, Ipv4, Ipv6, Arp> l3_;
  std::variant<std::monostate, Tcp, Udp, Icmp> l4_;
  uint8_t ttl_ = 64;
  uint8_t tos_ = 0;
  std::optional<uint8_t> proto_;
  Bytes payload_;
  std::vector<std::pair<size_t, Bytes>> patches_;
  std::optional<size_t> keep_;
  size_t cut_ = 0;
};

}  // namespace openflow_test
