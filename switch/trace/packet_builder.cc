// SPDX-License-Identifier: BSD-3-Clause
#include "switch/trace/packet_builder.h"

#include <rte_ether.h>
#include <rte_hash_crc.h>
#include <rte_icmp.h>
#include <rte_ip.h>
#include <rte_sctp.h>
#include <rte_tcp.h>
#include <rte_udp.h>

#include <algorithm>
#include <cstring>
#include <optional>

namespace ofswitch {
namespace {

constexpr uint64_t kSrcMac = 0x020000000001;
constexpr uint64_t kDstMac = 0x020000000002;
constexpr uint64_t kBroadcast = kMacBits;
constexpr uint32_t kSrcIpv4 = 0xc0000201;  // 192.0.2.1
constexpr uint32_t kDstIpv4 = 0xc0000202;
constexpr Uint128 kSrcIpv6 = Uint128{0x20010db8} << 96 | 1;
constexpr Uint128 kDstIpv6 = Uint128{0x20010db8} << 96 | 2;
constexpr uint16_t kSrcPort = 49152;  // the first that no service has
constexpr uint16_t kDstPort = 49153;
constexpr uint8_t kTtl = 64;
constexpr uint16_t kExperimentalType = 0x88b5;  // IEEE 802, local
constexpr uint8_t kExperimentalProtocol = 253;  // RFC 3692
constexpr uint8_t kNoNextHeader = 59;           // RFC 8200
constexpr uint8_t kIcmpEcho = 8;
constexpr uint8_t kIcmpv6Echo = 128;
constexpr size_t kIcmpBody = 32;  // holds any ICMPv6 message's fixed part
constexpr uint32_t kMplsBottomOfStack = 0x100;
constexpr uint16_t kEthTypeMpls = 0x8847;
constexpr uint16_t kEthTypeMplsMulticast = 0x8848;
constexpr uint8_t kSctpCookieAck = 11;
constexpr size_t kShortestFrame = RTE_ETHER_MIN_LEN - RTE_ETHER_CRC_LEN;

// What is constrained as it is wanted, the rest as it usually is.
template <class T>
T pick(const Masked<T>& wanted, T usual) {
  return static_cast<T>((usual & ~wanted.mask) | wanted.value);
}

std::string networkOrder(Uint128 value, size_t width) {
  std::string bytes(width, '\0');
  for (size_t i = width; i-- > 0; value >>= 8) {
    bytes[i] = static_cast<char>(value);
  }
  return bytes;
}

template <class T>
std::string networkOrder(T value) {
  return networkOrder(value, sizeof(T));
}

template <class Header>
std::string bytesOf(const Header& header) {
  return {reinterpret_cast<const char*>(&header), sizeof(header)};
}

std::string tcpHeader(const Match& m) {
  rte_tcp_hdr tcp = {};
  tcp.src_port = rte_cpu_to_be_16(pick(m.l4Src, kSrcPort));
  tcp.dst_port = rte_cpu_to_be_16(pick(m.l4Dst, kDstPort));
  tcp.data_off = sizeof(tcp) / 4 << 4;
  tcp.tcp_flags = pick<uint8_t>(m.tcpFlags, RTE_TCP_SYN_FLAG);
  tcp.rx_win = 0xffff;
  return bytesOf(tcp);
}

std::string udpHeader(const Match& m) {
  rte_udp_hdr udp = {};
  udp.src_port = rte_cpu_to_be_16(pick(m.l4Src, kSrcPort));
  udp.dst_port = rte_cpu_to_be_16(pick(m.l4Dst, kDstPort));
  udp.dgram_len = rte_cpu_to_be_16(sizeof(udp));
  return bytesOf(udp);
}

std::string icmpMessage(const Match& m, uint8_t echo) {
  rte_icmp_hdr icmp = {};
  icmp.icmp_type = pick(m.icmpType, echo);
  icmp.icmp_code = pick<uint8_t>(m.icmpCode, 0);
  return bytesOf(icmp) + std::string(kIcmpBody, '\0');
}

// An empty chunk; the checksum is CRC32C over all, lowest byte first.
std::string sctpPacket() {
  rte_sctp_hdr sctp = {};
  sctp.src_port = rte_cpu_to_be_16(kSrcPort);
  sctp.dst_port = rte_cpu_to_be_16(kDstPort);
  const std::string chunk = {kSctpCookieAck, 0, 0, 4};
  const std::string packet = bytesOf(sctp) + chunk;
  sctp.cksum = rte_cpu_to_le_32(
      ~rte_hash_crc(packet.data(), static_cast<uint32_t>(packet.size()), ~0u));
  return bytesOf(sctp) + chunk;
}

uint8_t protocolOf(const Match& m) {
  return pick(m.ipProto, m.isIpv6() ? kNoNextHeader : kExperimentalProtocol);
}

// Without checksum, except where it covers no IP header.
std::string l4Packet(const Match& m, uint8_t protocol) {
  if (protocol == kProtoTcp) return tcpHeader(m);
  if (protocol == kProtoUdp) return udpHeader(m);
  if (protocol == kProtoSctp) return sctpPacket();
  if (m.isIpv6()) {
    return protocol == kProtoIcmpv6 ? icmpMessage(m, kIcmpv6Echo) : "";
  }
  if (protocol != kProtoIcmp) return "";
  std::string message = icmpMessage(m, kIcmpEcho);
  auto* icmp = reinterpret_cast<rte_icmp_hdr*>(message.data());
  icmp->icmp_cksum =
      static_cast<uint16_t>(~rte_raw_cksum(message.data(), message.size()));
  return message;
}

// The place of a checksum that covers the IP header's addresses, too.
std::optional<size_t> pseudoChecksumAt(bool ipv6, uint8_t protocol) {
  if (protocol == kProtoTcp) return offsetof(rte_tcp_hdr, cksum);
  if (protocol == kProtoUdp) return offsetof(rte_udp_hdr, dgram_cksum);
  if (ipv6 && protocol == kProtoIcmpv6) {
    return offsetof(rte_icmp_hdr, icmp_cksum);
  }
  return std::nullopt;
}

void putChecksum(uint16_t checksum, size_t at, std::string* l4) {
  std::memcpy(l4->data() + at, &checksum, sizeof(checksum));
}

std::string ipv4Packet(const Match& m) {
  const uint8_t protocol = protocolOf(m);
  std::string l4 = l4Packet(m, protocol);
  rte_ipv4_hdr ip = {};
  ip.version_ihl = RTE_IPV4_VHL_DEF;
  ip.type_of_service = pick<uint8_t>(m.ipTos, 0);
  ip.total_length =
      rte_cpu_to_be_16(static_cast<uint16_t>(sizeof(ip) + l4.size()));
  ip.time_to_live = pick(m.ipTtl, kTtl);
  ip.next_proto_id = protocol;
  ip.src_addr = rte_cpu_to_be_32(pick(m.ipv4Src, kSrcIpv4));
  ip.dst_addr = rte_cpu_to_be_32(pick(m.ipv4Dst, kDstIpv4));
  ip.hdr_checksum = rte_ipv4_cksum(&ip);
  if (const auto at = pseudoChecksumAt(false, protocol)) {
    putChecksum(rte_ipv4_udptcp_cksum(&ip, l4.data()), *at, &l4);
  }
  return bytesOf(ip) + l4;
}

std::string ipv6Packet(const Match& m) {
  const uint8_t protocol = protocolOf(m);
  std::string l4 = l4Packet(m, protocol);
  rte_ipv6_hdr ip = {};
  ip.vtc_flow =
      rte_cpu_to_be_32(6u << 28 | uint32_t{pick<uint8_t>(m.ipTos, 0)} << 20);
  ip.payload_len = rte_cpu_to_be_16(static_cast<uint16_t>(l4.size()));
  ip.proto = protocol;
  ip.hop_limits = pick(m.ipTtl, kTtl);
  const std::string src = networkOrder(pick(m.ipv6Src, kSrcIpv6));
  const std::string dst = networkOrder(pick(m.ipv6Dst, kDstIpv6));
  std::memcpy(ip.src_addr, src.data(), src.size());
  std::memcpy(ip.dst_addr, dst.data(), dst.size());
  if (const auto at = pseudoChecksumAt(true, protocol)) {
    putChecksum(rte_ipv6_udptcp_cksum(&ip, l4.data()), *at, &l4);
  }
  return bytesOf(ip) + l4;
}

// A request for the target address, or the reverse.
std::string arpPacket(const Match& m, bool reverse, uint64_t srcMac) {
  const std::string sender = networkOrder(srcMac, 6);
  const std::string fixed = {0, 1, 8, 0, 6, 4, 0, reverse ? '\x03' : '\x01'};
  return fixed + sender + networkOrder(kSrcIpv4) +
         (reverse ? sender : std::string(6, '\0')) +
         networkOrder(pick(m.arpTpa, reverse ? uint32_t{0} : kDstIpv4));
}

std::string l3Packet(const Match& m, uint16_t type, uint64_t srcMac) {
  switch (type) {
    case kEthTypeIpv4:
      return ipv4Packet(m);
    case kEthTypeIpv6:
      return ipv6Packet(m);
    case kEthTypeArp:
    case kEthTypeRarp:
      return arpPacket(m, type == kEthTypeRarp, srcMac);
    case kEthTypeMpls:
    case kEthTypeMplsMulticast:
      // Label 0: an IPv4 packet follows.
      return networkOrder(kMplsBottomOfStack | kTtl) + ipv4Packet({});
    default:
      return "";
  }
}

}  // namespace

std::string buildFrame(const Match& match) {
  const uint16_t type = pick(match.ethType, kExperimentalType);
  const bool asksAll = type == kEthTypeArp || type == kEthTypeRarp;
  const uint64_t src = pick(match.ethSrc, kSrcMac);
  const uint64_t dst = pick(match.ethDst, asksAll ? kBroadcast : kDstMac);
  std::string frame = networkOrder(dst, 6) + networkOrder(src, 6);
  if (match.isTagged()) {
    frame += networkOrder<uint16_t>(RTE_ETHER_TYPE_VLAN) +
             networkOrder(match.vlanTci.value);
  }
  frame += networkOrder(type) + l3Packet(match, type, src);
  frame.resize(std::max(frame.size(), kShortestFrame), '\0');
  return frame;
}

}  // namespace ofswitch
