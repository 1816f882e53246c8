// SPDX-License-Identifier: BSD-3-Clause
#include "switch/trace/key_fields.h"

#include <fmt/format.h>

#include <string_view>

#include "switch/flow/numbers.h"
#include "switch/flow/tcp_flags.h"
#include "switch/flow/vlan_tci.h"
#include "switch/trace/packet_key.h"

namespace ofswitch {
namespace {

using std::string_view_literals::operator""sv;

using Value = Masked<Uint128>;

std::string decimal(const Value& v) {
  return fmt::format("{}", static_cast<uint64_t>(v.value));
}

std::string hex16(const Value& v) {
  return fmt::format("0x{:04x}", static_cast<uint16_t>(v.value));
}

std::string mac(const Value& v) {
  const auto mask = static_cast<uint64_t>(v.mask);
  const std::string value = macText(static_cast<uint64_t>(v.value));
  return mask == kMacBits ? value : value + "/" + macText(mask);
}

template <class T>
std::string addressText(const Value& v, std::string (*text)(T)) {
  const auto mask = static_cast<T>(v.mask);
  const std::string value = text(static_cast<T>(v.value));
  if (static_cast<T>(~mask) == 0) return value;
  if (const auto length = prefixLength(mask)) {
    return fmt::format("{}/{}", value, *length);
  }
  return value + "/" + text(mask);
}

std::string ipv4(const Value& v) { return addressText<uint32_t>(v, ipv4Text); }
std::string ipv6(const Value& v) { return addressText<Uint128>(v, ipv6Text); }

// One number or its low bits with others left open.
template <unsigned kBits>
std::string maskable(const Value& v) {
  constexpr unsigned kAll = (1u << kBits) - 1;
  const auto mask = static_cast<unsigned>(v.mask);
  const auto value = static_cast<unsigned>(v.value);
  return mask == kAll ? fmt::format("{}", value)
                      : fmt::format("0x{:x}/0x{:x}", value, mask);
}

std::string tcpFlags(const Value& v) {
  const Masked<uint8_t> flags{static_cast<uint8_t>(v.value),
                              static_cast<uint8_t>(v.mask)};
  if (!flags.isExact()) return tcpFlagsText(flags);
  // Of a packet: those that are set.
  const std::string set = tcpFlagsText({flags.value, flags.value});
  return set.empty() ? "0" : set;
}

// Part of a member of Match: `bits` of it, moved down by `shift`.
struct Row {
  const char* name;
  Value (*read)(const Match&);
  std::string (*text)(const Value&);
  bool (*has)(const Match& key);  // whether a packet of this key has the field
};

template <auto kMember, uint64_t kBits = ~uint64_t{0}, int kShift = 0>
Value part(const Match& match) {
  const auto& field = match.*kMember;
  if constexpr (kBits == ~uint64_t{0}) {
    return {field.value, field.mask};
  } else {
    return {(field.value & kBits) >> kShift, (field.mask & kBits) >> kShift};
  }
}

bool always(const Match&) { return true; }
bool ip(const Match& key) { return key.isIp(); }
bool ip4(const Match& key) { return key.isIpv4(); }
bool ip6(const Match& key) { return key.isIpv6(); }
bool arp(const Match& key) { return key.isEthType(kEthTypeArp); }
bool tcp(const Match& key) { return key.isTcp(); }
bool ports(const Match& key) { return key.isTcp() || key.isUdp(); }
bool icmp(const Match& key) { return key.isIcmpv4() || key.isIcmpv6(); }
bool tagged(const Match& key) { return key.vlanTci.value != 0; }
bool dropEligible(const Match& key) {
  return (key.vlanTci.value & kVlanPresent) != 0;
}

constexpr Row kRows[] = {
    {"in_port", part<&Match::inPort>, decimal, always},
    {"dl_src", part<&Match::ethSrc>, mac, always},
    {"dl_dst", part<&Match::ethDst>, mac, always},
    {"dl_type", part<&Match::ethType>, hex16, always},
    {"dl_vlan", part<&Match::vlanTci, kVlanVidBits>, maskable<12>, tagged},
    {"dl_vlan_pcp", part<&Match::vlanTci, kVlanPcpBits, 13>, maskable<3>,
     tagged},
    {"vlan_dei", part<&Match::vlanTci, kVlanPresent, 12>, decimal,
     dropEligible},
    {"arp_tpa", part<&Match::arpTpa>, ipv4, arp},
    {"nw_src", part<&Match::ipv4Src>, ipv4, ip4},
    {"nw_dst", part<&Match::ipv4Dst>, ipv4, ip4},
    {"ipv6_src", part<&Match::ipv6Src>, ipv6, ip6},
    {"ipv6_dst", part<&Match::ipv6Dst>, ipv6, ip6},
    {"nw_proto", part<&Match::ipProto>, decimal, ip},
    {"nw_tos", part<&Match::ipTos, 0xfc>, decimal, ip},
    {"nw_ecn", part<&Match::ipTos, 0x03>, decimal, ip},
    {"nw_ttl", part<&Match::ipTtl>, maskable<8>, ip},
    {"tp_src", part<&Match::l4Src>, decimal, ports},
    {"tp_dst", part<&Match::l4Dst>, decimal, ports},
    {"tcp_flags", part<&Match::tcpFlags>, tcpFlags, tcp},
    {"icmp_type", part<&Match::icmpType>, decimal, icmp},
    {"icmp_code", part<&Match::icmpCode>, decimal, icmp},
};

std::string textIn(const Row& row, const Match& key) {
  return row.has(key) ? row.text(row.read(key)) : "none";
}

bool meets(const Value& wanted, const Value& found) {
  return ((wanted.value ^ found.value) & wanted.mask) == 0;
}

bool isTag(const Row& row) {
  return row.has == tagged || row.has == dropEligible;
}

// Rewrites see a tag only where it follows the addresses.
bool startsWithTag(std::string_view frame) {
  return frame.size() >= 14 && frame.substr(12, 2) == "\x81\x00"sv;
}

}  // namespace

std::vector<NamedField> fieldsOf(const Match& key) {
  std::vector<NamedField> fields;
  for (const Row& row : kRows) {
    if (row.has(key)) fields.push_back({row.name, row.text(row.read(key))});
  }
  return fields;
}

std::vector<FieldDifference> differences(const Match& match, const Match& key) {
  std::vector<FieldDifference> all;
  for (const Row& row : kRows) {
    const Value wanted = row.read(match);
    if (meets(wanted, row.read(key))) continue;
    all.push_back({row.name, row.text(wanted), textIn(row, key)});
  }
  return all;
}

int countDifferences(const Match& match, const Match& key) {
  int count = 0;
  for (const Row& row : kRows) {
    count += !meets(row.read(match), row.read(key));
  }
  return count;
}

std::vector<FieldDifference> rewrittenFields(std::string_view before,
                                             std::string_view after) {
  const Match from = packetKey(before, 0);
  const Match to = packetKey(after, 0);
  const bool tagBefore = startsWithTag(before);
  const bool tagAfter = startsWithTag(after);
  std::vector<FieldDifference> all;
  for (const Row& row : kRows) {
    std::string found = textIn(row, from);
    std::string wanted = textIn(row, to);
    if (isTag(row)) {
      // A tag of sixteen 0 bits is one, too.
      found = tagBefore ? row.text(row.read(from)) : "none";
      wanted = tagAfter ? row.text(row.read(to)) : "none";
      if (row.has == dropEligible && !row.has(from) && !row.has(to)) continue;
    } else if (!row.has(from) || !row.has(to)) {
      continue;
    }
    if (found != wanted) all.push_back({row.name, wanted, found});
  }
  return all;
}

}  // namespace ofswitch
