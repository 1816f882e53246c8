// SPDX-License-Identifier: BSD-3-Clause
#include "switch/flow/match_fields.h"

#include <limits>

#include "switch/flow/flow.h"
#include "switch/flow/numbers.h"
#include "switch/flow/tcp_flags.h"
#include "switch/flow/vlan_tci.h"

namespace ofswitch {
namespace {

// A number that the key compares whole. A mask of all ones or none is no
// mask.
template <class T>
Masked<T> exactNumber(const Word& word,
                      uint64_t max = std::numeric_limits<T>::max()) {
  const Masked<uint64_t> number = parseMaskedNumber(word.value, max, word.text);
  if (number.mask == 0) return {};
  if (number.mask != max) {
    refuse(
        "{}: the module compares {} without a mask; write {}=VALUE, one flow "
        "for each value",
        word.text, word.key, word.key);
  }
  return Masked<T>::exact(static_cast<T>(number.value));
}

void needs(bool met, const Word& word, std::string_view what) {
  if (!met) refuse("{}: needs {} in the match", word.text, what);
}

void constrainVlan(MatchBuilder* b, Masked<uint16_t> more, const Word& word) {
  b->vlanWord = word.text;
  constrain(&b->vlan, more, word);
}

void inPort(MatchBuilder* b, const Word& word) {
  const auto port = toNumber(word.value);
  if (!port || *port < 1 || *port > kMaxPort) {
    refuse("{}: ports are numbers from 1 to {}", word.text, kMaxPort);
  }
  constrain(&b->match.inPort, Masked<uint32_t>::exact(*port), word);
}

void metadata(MatchBuilder*, const Word& word) {
  // No action writes the metadata, so OpenFlow sees 0 in every packet.
  if (parseMaskedNumber(word.value, ~uint64_t{0}, word.text).value != 0) {
    refuse(
        "{}: matches no packet, nothing writes metadata here (the module's "
        "own metadata carries the in-port); write in_port=PORT",
        word.text);
  }
}

void ethSrc(MatchBuilder* b, const Word& word) {
  constrain(&b->match.ethSrc, parseMaskedMac(word.value, word.text), word);
}

void ethDst(MatchBuilder* b, const Word& word) {
  constrain(&b->match.ethDst, parseMaskedMac(word.value, word.text), word);
}

void ethType(MatchBuilder* b, const Word& word) {
  const Masked<uint16_t> type = exactNumber<uint16_t>(word);
  if (!type.any() && type.value < 0x0600) {
    refuse(
        "{}: below 0x0600 stands a length, and the module does not tell "
        "802.3 frames apart by it; leave dl_type out",
        word.text);
  }
  if (type.value == 0x8100 || type.value == 0x88a8) {
    refuse(
        "{}: dl_type is the type behind the VLAN tag; write dl_vlan=VID to "
        "match the tag",
        word.text);
  }
  constrain(&b->match.ethType, type, word);
}

void ipProto(MatchBuilder* b, const Word& word) {
  if (b->match.isEthType(kEthTypeArp) || b->match.isEthType(kEthTypeRarp)) {
    refuse("{}: the module does not read the ARP operation", word.text);
  }
  needs(b->match.isIp(), word, "ip or ipv6");
  constrain(&b->match.ipProto, exactNumber<uint8_t>(word), word);
}

void dlVlan(MatchBuilder* b, const Word& word) {
  const uint64_t vid = parseNumber(word.value, 0xffff, word.text);
  if (vid == 0xffff) {
    constrainVlan(b, {0, kVlanPresent}, word);
    return;
  }
  if (vid > kVlanVidBits) refuse("{}: {} is above 4095", word.text, vid);
  constrainVlan(
      b,
      {static_cast<uint16_t>(kVlanPresent | vid), kVlanPresent | kVlanVidBits},
      word);
}

void vlanVid(MatchBuilder* b, const Word& word) {
  const Masked<uint64_t> vid =
      parseMaskedNumber(word.value, kVlanPresent | kVlanVidBits, word.text);
  if (vid.value != 0 && vid.value <= kVlanVidBits &&
      (vid.mask & kVlanPresent) != 0) {
    refuse(
        "{}: matches no frame without the bit 0x1000, which stands for the "
        "tag; did you mean dl_vlan={}?",
        word.text, vid.value);
  }
  constrainVlan(
      b, {static_cast<uint16_t>(vid.value), static_cast<uint16_t>(vid.mask)},
      word);
}

void vlanTci(MatchBuilder* b, const Word& word) {
  const Masked<uint64_t> tci = parseMaskedNumber(word.value, 0xffff, word.text);
  constrainVlan(
      b, {static_cast<uint16_t>(tci.value), static_cast<uint16_t>(tci.mask)},
      word);
}

void vlanPcp(MatchBuilder* b, const Word& word) {
  const Masked<uint8_t> pcp = exactNumber<uint8_t>(word, 7);
  if (pcp.any()) return;
  constrainVlan(b,
                {static_cast<uint16_t>(kVlanPresent | pcp.value << 13),
                 kVlanPresent | kVlanPcpBits},
                word);
}

void nwSrc(MatchBuilder* b, const Word& word) {
  if (word.value == "*") return;
  if (b->match.isEthType(kEthTypeArp) || b->match.isEthType(kEthTypeRarp)) {
    refuse(
        "{}: the module reads only the ARP target address; write "
        "arp_tpa=ADDRESS",
        word.text);
  }
  needs(b->match.isIpv4(), word, "ip");
  constrain(&b->match.ipv4Src, parseMaskedIpv4(word.value, word.text), word);
}

void arpTpa(MatchBuilder* b, const Word& word) {
  needs(b->match.isEthType(kEthTypeArp), word, "arp");
  constrain(&b->match.arpTpa, parseMaskedIpv4(word.value, word.text), word);
}

void nwDst(MatchBuilder* b, const Word& word) {
  if (word.value == "*") return;
  if (b->match.isEthType(kEthTypeArp)) return arpTpa(b, word);
  needs(b->match.isIpv4(), word, "ip or arp");
  constrain(&b->match.ipv4Dst, parseMaskedIpv4(word.value, word.text), word);
}

void ipv6Src(MatchBuilder* b, const Word& word) {
  needs(b->match.isIpv6(), word, "ipv6");
  constrain(&b->match.ipv6Src, parseMaskedIpv6(word.value, word.text), word);
}

void ipv6Dst(MatchBuilder* b, const Word& word) {
  needs(b->match.isIpv6(), word, "ipv6");
  constrain(&b->match.ipv6Dst, parseMaskedIpv6(word.value, word.text), word);
}

void nwTos(MatchBuilder* b, const Word& word) {
  needs(b->match.isIp(), word, "ip or ipv6");
  const Masked<uint8_t> tos = exactNumber<uint8_t>(word);
  if ((tos.value & 0x03) != 0) {
    refuse("{}: the low two bits are the ECN field; write nw_tos={},nw_ecn={}",
           word.text, tos.value & 0xfc, tos.value & 0x03);
  }
  if (tos.any()) return;
  constrain(&b->match.ipTos, {tos.value, 0xfc}, word);
}

void ipDscp(MatchBuilder* b, const Word& word) {
  needs(b->match.isIp(), word, "ip or ipv6");
  const Masked<uint8_t> dscp = exactNumber<uint8_t>(word, 63);
  if (dscp.any()) return;
  constrain(&b->match.ipTos, {static_cast<uint8_t>(dscp.value << 2), 0xfc},
            word);
}

void nwEcn(MatchBuilder* b, const Word& word) {
  needs(b->match.isIp(), word, "ip or ipv6");
  const Masked<uint8_t> ecn = exactNumber<uint8_t>(word, 3);
  if (ecn.any()) return;
  constrain(&b->match.ipTos, {ecn.value, 0x03}, word);
}

void nwTtl(MatchBuilder* b, const Word& word) {
  needs(b->match.isIp(), word, "ip or ipv6");
  const Masked<uint64_t> ttl = parseMaskedNumber(word.value, 0xff, word.text);
  constrain(&b->match.ipTtl,
            {static_cast<uint8_t>(ttl.value), static_cast<uint8_t>(ttl.mask)},
            word);
}

void icmpType(MatchBuilder* b, const Word& word) {
  needs(b->match.isIcmpv4() || b->match.isIcmpv6(), word, "icmp or icmp6");
  constrain(&b->match.icmpType, exactNumber<uint8_t>(word), word);
}

void icmpCode(MatchBuilder* b, const Word& word) {
  needs(b->match.isIcmpv4() || b->match.isIcmpv6(), word, "icmp or icmp6");
  constrain(&b->match.icmpCode, exactNumber<uint8_t>(word), word);
}

void icmpv6Type(MatchBuilder* b, const Word& word) {
  needs(b->match.isIcmpv6(), word, "icmp6");
  icmpType(b, word);
}

void icmpv6Code(MatchBuilder* b, const Word& word) {
  needs(b->match.isIcmpv6(), word, "icmp6");
  icmpCode(b, word);
}

void refuseSctp(const MatchBuilder& b, const Word& word) {
  if (b.match.isIpProto(kProtoSctp)) {
    refuse("{}: the module reads the ports of TCP and UDP only", word.text);
  }
}

void tpSrc(MatchBuilder* b, const Word& word) {
  refuseSctp(*b, word);
  if (b->match.isIcmpv4()) return icmpType(b, word);
  needs(b->match.isTcp() || b->match.isUdp(), word, "tcp, udp, tcp6 or udp6");
  constrain(&b->match.l4Src, exactNumber<uint16_t>(word), word);
}

void tpDst(MatchBuilder* b, const Word& word) {
  refuseSctp(*b, word);
  if (b->match.isIcmpv4()) return icmpCode(b, word);
  needs(b->match.isTcp() || b->match.isUdp(), word, "tcp, udp, tcp6 or udp6");
  constrain(&b->match.l4Dst, exactNumber<uint16_t>(word), word);
}

void tcpSrc(MatchBuilder* b, const Word& word) {
  needs(b->match.isTcp(), word, "tcp or tcp6");
  tpSrc(b, word);
}

void tcpDst(MatchBuilder* b, const Word& word) {
  needs(b->match.isTcp(), word, "tcp or tcp6");
  tpDst(b, word);
}

void udpSrc(MatchBuilder* b, const Word& word) {
  needs(b->match.isUdp(), word, "udp or udp6");
  tpSrc(b, word);
}

void udpDst(MatchBuilder* b, const Word& word) {
  needs(b->match.isUdp(), word, "udp or udp6");
  tpDst(b, word);
}

void sctpPort(MatchBuilder* b, const Word& word) {
  needs(b->match.isIpProto(kProtoSctp), word, "sctp or sctp6");
  refuseSctp(*b, word);
}

void tcpFlags(MatchBuilder* b, const Word& word) {
  needs(b->match.isTcp(), word, "tcp or tcp6");
  constrain(&b->match.tcpFlags, parseTcpFlags(word.value, word.text), word);
}

constexpr FieldRow kFields[] = {
    {{"in_port"}, FieldStage::kOther, inPort},
    {{"metadata"}, FieldStage::kOther, metadata},
    {{"dl_src", "eth_src"}, FieldStage::kOther, ethSrc},
    {{"dl_dst", "eth_dst"}, FieldStage::kOther, ethDst},
    {{"dl_type", "eth_type"}, FieldStage::kEthType, ethType},
    {{"dl_vlan"}, FieldStage::kOther, dlVlan},
    {{"vlan_vid"}, FieldStage::kOther, vlanVid},
    {{"vlan_tci"}, FieldStage::kOther, vlanTci},
    {{"dl_vlan_pcp", "vlan_pcp"}, FieldStage::kOther, vlanPcp},
    {{"nw_proto", "ip_proto"}, FieldStage::kIpProto, ipProto},
    {{"nw_src", "ip_src"}, FieldStage::kOther, nwSrc},
    {{"nw_dst", "ip_dst"}, FieldStage::kOther, nwDst},
    {{"arp_tpa"}, FieldStage::kOther, arpTpa},
    {{"ipv6_src"}, FieldStage::kOther, ipv6Src},
    {{"ipv6_dst"}, FieldStage::kOther, ipv6Dst},
    {{"nw_tos"}, FieldStage::kOther, nwTos},
    {{"ip_dscp"}, FieldStage::kOther, ipDscp},
    {{"nw_ecn", "ip_ecn"}, FieldStage::kOther, nwEcn},
    {{"nw_ttl", "ip_ttl"}, FieldStage::kOther, nwTtl},
    {{"tp_src"}, FieldStage::kOther, tpSrc},
    {{"tp_dst"}, FieldStage::kOther, tpDst},
    {{"tcp_src"}, FieldStage::kOther, tcpSrc},
    {{"tcp_dst"}, FieldStage::kOther, tcpDst},
    {{"udp_src"}, FieldStage::kOther, udpSrc},
    {{"udp_dst"}, FieldStage::kOther, udpDst},
    {{"sctp_src"}, FieldStage::kOther, sctpPort},
    {{"sctp_dst"}, FieldStage::kOther, sctpPort},
    {{"tcp_flags"}, FieldStage::kOther, tcpFlags},
    {{"icmp_type"}, FieldStage::kOther, icmpType},
    {{"icmp_code"}, FieldStage::kOther, icmpCode},
    {{"icmpv6_type"}, FieldStage::kOther, icmpv6Type},
    {{"icmpv6_code"}, FieldStage::kOther, icmpv6Code},
};

}  // namespace

std::span<const FieldRow> matchFields() { return kFields; }

}  // namespace ofswitch
