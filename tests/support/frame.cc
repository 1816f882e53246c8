// SPDX-License-Identifier: BSD-3-Clause
#include "tests/support/frame.h"

#include <algorithm>
#include <numeric>
#include <stdexcept>
#include <utility>

#include "tests/support/checksum.h"

namespace openflow_test {
namespace {

constexpr uint16_t kTypeIpv4 = 0x0800;
constexpr uint16_t kTypeArp = 0x0806;
constexpr uint16_t kTypeVlan = 0x8100;
constexpr uint16_t kTypeIpv6 = 0x86dd;
constexpr uint16_t kTypeQinq = 0x88a8;
constexpr uint16_t kTypeExperimental = 0x88b5;

constexpr uint8_t kProtoHopByHop = 0;
constexpr uint8_t kProtoIcmp = 1;
constexpr uint8_t kProtoTcp = 6;
constexpr uint8_t kProtoUdp = 17;
constexpr uint8_t kProtoIcmpv6 = 58;
constexpr uint8_t kProtoExperimental = 253;

void append(Bytes* out, const auto& bytes) {
  out->insert(out->end(), bytes.begin(), bytes.end());
}

void append8(Bytes* out, unsigned value) {
  out->push_back(static_cast<uint8_t>(value));
}

void append16(Bytes* out, unsigned value) {
  append8(out, value >> 8);
  append8(out, value);
}

void append32(Bytes* out, uint32_t value) {
  append16(out, value >> 16);
  append16(out, value);
}

}  // namespace

Frame Frame::eth(const Mac& dst, const Mac& src) {
  Frame frame;
  frame.dst_ = dst;
  frame.src_ = src;
  return frame;
}

Frame& Frame::vlan(uint16_t vid, uint8_t pcp, bool dei) {
  return tag(kTypeVlan, static_cast<uint16_t>(pcp << 13 | dei << 12 | vid));
}

Frame& Frame::qinq(uint16_t vid, uint8_t pcp) {
  return tag(kTypeQinq, static_cast<uint16_t>(pcp << 13 | vid));
}

Frame& Frame::tag(uint16_t type, uint16_t tci) {
  l2_.push_back(Tag{type, tci});
  return *this;
}

Frame& Frame::snap(uint8_t control, uint32_t oui) {
  l2_.push_back(Snap{control, oui});
  return *this;
}

Frame& Frame::llc(uint8_t dsap, uint8_t ssap, uint8_t control) {
  l2_.push_back(Llc{dsap, ssap, control});
  return *this;
}

Frame& Frame::ethType(uint16_t type) {
  ethType_ = type;
  return *this;
}

Frame& Frame::ipv4(uint32_t src, uint32_t dst) {
  l3_ = Ipv4{.src = src, .dst = dst, .rawIhl = std::nullopt};
  return *this;
}

Frame& Frame::ipv6(const Ip6& src, const Ip6& dst) {
  l3_ = Ipv6{.src = src, .dst = dst};
  return *this;
}

Frame& Frame::arp(uint32_t spa, uint32_t tpa, uint16_t operation) {
  l3_ = Arp{spa, tpa, operation};
  return *this;
}

Frame& Frame::ttl(uint8_t value) {
  ttl_ = value;
  return *this;
}

Frame& Frame::tos(uint8_t value) {
  tos_ = value;
  return *this;
}

Frame& Frame::flowLabel(uint32_t value) {
  std::get<Ipv6>(l3_).flowLabel = value;
  return *this;
}

Frame& Frame::proto(uint8_t value) {
  proto_ = value;
  return *this;
}

Frame& Frame::options(uint8_t ihl) {
  if (ihl < 5 || ihl > 15) {
    throw std::invalid_argument("an IPv4 header has 5 to 15 words");
  }
  std::get<Ipv4>(l3_).headerWords = ihl;
  return *this;
}

Frame& Frame::rawIhl(uint8_t ihl) {
  std::get<Ipv4>(l3_).rawIhl = ihl;
  return *this;
}

Frame& Frame::fragment(uint16_t offset8, bool more) {
  std::get<Ipv4>(l3_).fragment =
      static_cast<uint16_t>((more ? 0x2000 : 0) | (offset8 & 0x1fff));
  return *this;
}

Frame& Frame::hopByHop() {
  std::get<Ipv6>(l3_).hopByHop = true;
  return *this;
}

Frame& Frame::tcp(uint16_t src, uint16_t dst, uint8_t flags) {
  l4_ = Tcp{src, dst, flags};
  return *this;
}

Frame& Frame::udp(uint16_t src, uint16_t dst) {
  l4_ = Udp{src, dst};
  return *this;
}

Frame& Frame::udpNoChecksum() {
  std::get<Udp>(l4_).checksum = false;
  return *this;
}

Frame& Frame::icmp(uint8_t type, uint8_t code) {
  l4_ = Icmp{type, code};
  return *this;
}

Frame& Frame::payload(const std::string& text) {
  return payload(Bytes(text.begin(), text.end()));
}

Frame& Frame::payload(Bytes bytes) {
  payload_ = std::move(bytes);
  return *this;
}

Frame& Frame::payload(size_t length) {
  payload_.resize(length);
  std::iota(payload_.begin(), payload_.end(), uint8_t{0});
  return *this;
}

Frame& Frame::patch(size_t offset, Bytes bytes) {
  patches_.emplace_back(offset, std::move(bytes));
  return *this;
}

Frame& Frame::keep(size_t length) {
  keep_ = length;
  return *this;
}

Frame& Frame::cut(size_t length) {
  cut_ = length;
  return *this;
}

uint8_t Frame::l4Proto() const {
  if (proto_) return *proto_;
  if (std::holds_alternative<Tcp>(l4_)) return kProtoTcp;
  if (std::holds_alternative<Udp>(l4_)) return kProtoUdp;
  if (std::holds_alternative<Icmp>(l4_)) {
    return std::holds_alternative<Ipv6>(l3_) ? kProtoIcmpv6 : kProtoIcmp;
  }
  return kProtoExperimental;
}

uint16_t Frame::impliedEthType() const {
  if (std::holds_alternative<Ipv4>(l3_)) return kTypeIpv4;
  if (std::holds_alternative<Ipv6>(l3_)) return kTypeIpv6;
  if (std::holds_alternative<Arp>(l3_)) return kTypeArp;
  return kTypeExperimental;
}

// The sum over the addresses, protocol and length that TCP, UDP and ICMPv6
// checksums cover besides their own bytes.
uint32_t Frame::pseudoHeaderSum(size_t l4Length) const {
  Bytes header;
  if (const auto* ip = std::get_if<Ipv4>(&l3_)) {
    append32(&header, ip->src);
    append32(&header, ip->dst);
  } else if (const auto* ip6 = std::get_if<Ipv6>(&l3_)) {
    append(&header, ip6->src);
    append(&header, ip6->dst);
  }
  append16(&header, l4Proto());
  append16(&header, static_cast<unsigned>(l4Length));
  return onesSum(header.data(), header.size());
}

Bytes Frame::l4Bytes() const {
  Bytes out;
  size_t checksumAt = 0;
  if (const auto* tcp = std::get_if<Tcp>(&l4_)) {
    append16(&out, tcp->src);
    append16(&out, tcp->dst);
    append32(&out, 0x01020304);  // sequence number
    append32(&out, 0x05060708);  // acknowledged
    append8(&out, 5 << 4);       // header length in words
    append8(&out, tcp->flags);
    append16(&out, 8192);  // window
    append32(&out, 0);     // checksum, urgent pointer
    checksumAt = 16;
  } else if (const auto* udp = std::get_if<Udp>(&l4_)) {
    append16(&out, udp->src);
    append16(&out, udp->dst);
    append16(&out, static_cast<unsigned>(8 + payload_.size()));
    append16(&out, 0);
    checksumAt = 6;
  } else if (const auto* icmp = std::get_if<Icmp>(&l4_)) {
    append8(&out, icmp->type);
    append8(&out, icmp->code);
    append16(&out, 0);
    append32(&out, 0x00010002);  // identifier and sequence of an echo
    checksumAt = 2;
  }
  append(&out, payload_);
  if (checksumAt == 0) return out;

  const bool overIpv4 = std::holds_alternative<Ipv4>(l3_);
  const bool isUdp = std::holds_alternative<Udp>(l4_);
  const bool plainSum = std::holds_alternative<Icmp>(l4_) && overIpv4;
  uint32_t sum = onesSum(out.data(), out.size());
  if (!plainSum) sum += pseudoHeaderSum(out.size());
  uint16_t checksum = static_cast<uint16_t>(~foldSum(sum));
  if (isUdp && checksum == 0) checksum = 0xffff;  // 0 would mean "none"
  if (isUdp && !std::get<Udp>(l4_).checksum) checksum = 0;
  put16(&out[checksumAt], checksum);
  return out;
}

void Frame::appendIpv4(const Ipv4& ip, const Bytes& l4, Bytes* out) const {
  Bytes header;
  const size_t length = size_t{4} * ip.headerWords;
  append8(&header, 0x40 | ip.rawIhl.value_or(ip.headerWords));
  append8(&header, tos_);
  append16(&header, static_cast<unsigned>(length + l4.size()));
  append16(&header, 0x1234);  // identification
  append16(&header, ip.fragment);
  append8(&header, ttl_);
  append8(&header, l4Proto());
  append16(&header, 0);
  append32(&header, ip.src);
  append32(&header, ip.dst);
  header.resize(length, 0x01);  // options: no operation
  put16(&header[10],
        static_cast<uint16_t>(~foldSum(onesSum(header.data(), header.size()))));
  append(out, header);
  append(out, l4);
}

void Frame::appendIpv6(const Ipv6& ip, const Bytes& l4, Bytes* out) const {
  append32(out, 6u << 28 | uint32_t{tos_} << 20 | (ip.flowLabel & 0xfffff));
  append16(out, static_cast<unsigned>(l4.size() + (ip.hopByHop ? 8 : 0)));
  append8(out, ip.hopByHop ? kProtoHopByHop : l4Proto());
  append8(out, ttl_);
  append(out, ip.src);
  append(out, ip.dst);
  if (ip.hopByHop) {
    append8(out, l4Proto());
    append8(out, 0);            // length of the extension beyond 8 bytes
    append32(out, 0x01040000);  // PadN over the remaining six bytes
    append16(out, 0);
  }
  append(out, l4);
}

void Frame::appendArp(const Arp& arp, Bytes* out) const {
  append16(out, 1);  // Ethernet
  append16(out, kTypeIpv4);
  append8(out, 6);
  append8(out, 4);
  append16(out, arp.operation);
  append(out, src_);
  append32(out, arp.spa);
  append(out, Mac{});
  append32(out, arp.tpa);
  append(out, payload_);
}

Bytes Frame::l3Bytes() const {
  if (const auto* arp = std::get_if<Arp>(&l3_)) {
    Bytes out;
    appendArp(*arp, &out);
    return out;
  }
  const Bytes l4 = l4Bytes();
  Bytes out;
  if (const auto* ip = std::get_if<Ipv4>(&l3_)) {
    appendIpv4(*ip, l4, &out);
  } else if (const auto* ip6 = std::get_if<Ipv6>(&l3_)) {
    appendIpv6(*ip6, l4, &out);
  } else {
    append(&out, l4);
  }
  return out;
}

Bytes Frame::bytes() const {
  // From the inside out, because a length field counts what is behind it.
  Bytes out = l3Bytes();
  if (l2_.empty() || !std::holds_alternative<Llc>(l2_.back())) {
    Bytes type;
    append16(&type, ethType_.value_or(impliedEthType()));
    out.insert(out.begin(), type.begin(), type.end());
  }
  for (auto layer = l2_.rbegin(); layer != l2_.rend(); ++layer) {
    Bytes head;
    if (const auto* tag = std::get_if<Tag>(&*layer)) {
      append16(&head, tag->type);
      append16(&head, tag->tci);
    } else if (const auto* snap = std::get_if<Snap>(&*layer)) {
      append16(&head, static_cast<unsigned>(6 + out.size()));
      append16(&head, 0xaaaa);
      append8(&head, snap->control);
      append8(&head, snap->oui >> 16);
      append16(&head, snap->oui);
    } else {
      const Llc& llc = std::get<Llc>(*layer);
      append16(&head, static_cast<unsigned>(3 + out.size()));
      append8(&head, llc.dsap);
      append8(&head, llc.ssap);
      append8(&head, llc.control);
    }
    out.insert(out.begin(), head.begin(), head.end());
  }
  out.insert(out.begin(), src_.begin(), src_.end());
  out.insert(out.begin(), dst_.begin(), dst_.end());

  for (const auto& [offset, patch] : patches_) {
    if (offset + patch.size() > out.size()) {
      throw std::out_of_range("patch beyond the end of the frame");
    }
    std::copy(patch.begin(), patch.end(),
              out.begin() + static_cast<ptrdiff_t>(offset));
  }
  out.resize(std::min(out.size(), keep_.value_or(out.size())));
  out.resize(out.size() - std::min(out.size(), cut_));
  return out;
}

}  // namespace openflow_test
