// SPDX-License-Identifier: BSD-3-Clause
#include "switch/flow/set_field.h"

#include <algorithm>
#include <array>
#include <vector>

#include "switch/flow/numbers.h"
#include "switch/flow/refused.h"
#include "switch/flow/suggest.h"
#include "switch/flow/vlan_tci.h"

namespace ofswitch {
namespace {

using Value = uint64_t (*)(std::string_view text, std::string_view word);

template <uint64_t kMax>
uint64_t number(std::string_view text, std::string_view word) {
  return parseNumber(text, kMax, word);
}

uint64_t ipv4(std::string_view text, std::string_view word) {
  return parseIpv4(text, word);
}

// OpenFlow writes the VID with its presence bit; without it is common too.
uint64_t vid(std::string_view text, std::string_view word) {
  return parseNumber(text, kVlanPresent | kVlanVidBits, word) & kVlanVidBits;
}

uint64_t tos(std::string_view text, std::string_view word) {
  const uint64_t value = parseNumber(text, 0xff, word);
  if ((value & 0x03) != 0) {
    refuse("{}: the low two bits are the ECN field, set by nw_ecn", word);
  }
  return value;
}

uint64_t dscp(std::string_view text, std::string_view word) {
  return parseNumber(text, 63, word) << 2;
}

bool always(const Match&) { return true; }
bool isTcpOrUdp(const Match& m) { return m.isTcp() || m.isUdp(); }
bool isIcmp(const Match& m) { return m.isIcmpv4() || m.isIcmpv6(); }
bool isIpv4(const Match& m) { return m.isIpv4(); }
bool isIp(const Match& m) { return m.isIp(); }
bool isTcp(const Match& m) { return m.isTcp(); }
bool isUdp(const Match& m) { return m.isUdp(); }
bool isIcmpv6(const Match& m) { return m.isIcmpv6(); }

struct Row {
  std::array<std::string_view, 2> names;
  ActionKind kind;
  Value value;
  bool (*met)(const Match&);
  std::string_view needs;
};

constexpr std::string_view kTcpOrUdp = "tcp, udp, tcp6 or udp6";

constexpr Row kRows[] = {
    {{"eth_src", "dl_src"}, ActionKind::kSetEthSrc, parseMac, always, ""},
    {{"eth_dst", "dl_dst"}, ActionKind::kSetEthDst, parseMac, always, ""},
    {{"vlan_vid"}, ActionKind::kEditVlanVid, vid, always, ""},
    {{"vlan_pcp"}, ActionKind::kEditVlanPcp, number<7>, always, ""},
    {{"nw_src", "ip_src"}, ActionKind::kSetIpv4Src, ipv4, isIpv4, "ip"},
    {{"nw_dst", "ip_dst"}, ActionKind::kSetIpv4Dst, ipv4, isIpv4, "ip"},
    {{"nw_tos"}, ActionKind::kSetDscp, tos, isIp, "ip or ipv6"},
    {{"ip_dscp"}, ActionKind::kSetDscp, dscp, isIp, "ip or ipv6"},
    {{"nw_ecn", "ip_ecn"}, ActionKind::kSetEcn, number<3>, isIp, "ip or ipv6"},
    {{"tp_src"}, ActionKind::kSetL4Src, number<0xffff>, isTcpOrUdp, kTcpOrUdp},
    {{"tp_dst"}, ActionKind::kSetL4Dst, number<0xffff>, isTcpOrUdp, kTcpOrUdp},
    {{"tcp_src"}, ActionKind::kSetL4Src, number<0xffff>, isTcp, "tcp or tcp6"},
    {{"tcp_dst"}, ActionKind::kSetL4Dst, number<0xffff>, isTcp, "tcp or tcp6"},
    {{"udp_src"}, ActionKind::kSetL4Src, number<0xffff>, isUdp, "udp or udp6"},
    {{"udp_dst"}, ActionKind::kSetL4Dst, number<0xffff>, isUdp, "udp or udp6"},
    {{"icmp_type"},
     ActionKind::kSetIcmpType,
     number<0xff>,
     isIcmp,
     "icmp or icmp6"},
    {{"icmp_code"},
     ActionKind::kSetIcmpCode,
     number<0xff>,
     isIcmp,
     "icmp or icmp6"},
    {{"icmpv6_type"},
     ActionKind::kSetIcmpType,
     number<0xff>,
     isIcmpv6,
     "icmp6"},
    {{"icmpv6_code"},
     ActionKind::kSetIcmpCode,
     number<0xff>,
     isIcmpv6,
     "icmp6"},
};

// Fields that OpenFlow may set and the module cannot, with the reason.
struct Refusal {
  std::string_view name;
  std::string_view reason;
};

constexpr Refusal kRefusals[] = {
    {"ipv6_src", "the module does not rewrite IPv6 addresses"},
    {"ipv6_dst", "the module does not rewrite IPv6 addresses"},
    {"ipv6_label", "the module does not rewrite the IPv6 flow label"},
    {"nw_ttl", "the module only decrements the TTL; write dec_ttl"},
    {"ip_ttl", "the module only decrements the TTL; write dec_ttl"},
    {"metadata", "the metadata of a packet carries its in-port here"},
    {"in_port", "the in-port of a packet does not change"},
    {"vlan_tci", "write mod_vlan_vid:VID and mod_vlan_pcp:PRIORITY"},
    {"dl_vlan", "write mod_vlan_vid:VID"},
    {"dl_vlan_pcp", "write mod_vlan_pcp:PRIORITY"},
    {"sctp_src", "the module rewrites the ports of TCP and UDP only"},
    {"sctp_dst", "the module rewrites the ports of TCP and UDP only"},
    {"arp_spa", "the module does not rewrite ARP"},
    {"arp_tpa", "the module does not rewrite ARP"},
    {"arp_sha", "the module does not rewrite ARP"},
    {"arp_tha", "the module does not rewrite ARP"},
    {"arp_op", "the module does not rewrite ARP"},
    {"dl_type", "the type of a frame does not change"},
    {"eth_type", "the type of a frame does not change"},
    {"nw_proto", "the protocol of a packet does not change"},
    {"ip_proto", "the protocol of a packet does not change"},
    {"tcp_flags", "the module does not rewrite TCP flags"},
    {"tun_id", "the module has no tunnels"},
    {"tunnel_id", "the module has no tunnels"},
    {"pkt_mark", "packets carry no mark here"},
};

[[noreturn]] void refuseTarget(const Word& word, std::string_view field) {
  const auto* known = std::ranges::find(kRefusals, field, &Refusal::name);
  if (known != std::end(kRefusals)) {
    refuse("{}: {}", word.text, std::string(known->reason));
  }
  if (field.starts_with("reg") || field.starts_with("xreg") ||
      field.starts_with("xxreg")) {
    refuse("{}: the module has no registers", word.text);
  }
  std::vector<std::string_view> names;
  for (const Row& row : kRows) {
    for (const std::string_view name : row.names) {
      if (!name.empty()) names.push_back(name);
    }
  }
  refuse("{}: cannot set \"{}\"{}", word.text, field, suggest(field, names));
}

}  // namespace

Action parseSetField(const Word& word, const Match& match) {
  const size_t arrow = word.value.find("->");
  if (arrow == std::string_view::npos) {
    refuse("{}: write set_field:VALUE->FIELD", word.text);
  }
  const std::string_view value = trim(word.value.substr(0, arrow));
  const std::string_view field = trim(word.value.substr(arrow + 2));
  const auto* row = std::ranges::find_if(kRows, [field](const Row& row) {
    return row.names[0] == field || (row.names[1] == field && !field.empty());
  });
  if (row == std::end(kRows)) refuseTarget(word, field);
  if (value.find('/') != std::string_view::npos) {
    refuse(
        "{}: the module sets the whole field; write the value without a "
        "mask",
        word.text);
  }
  if (!row->met(match)) {
    refuse("{}: needs {} in the match", word.text, row->needs);
  }
  return {row->kind, row->value(value, word.text)};
}

}  // namespace ofswitch
