// SPDX-License-Identifier: BSD-3-Clause
#include "switch/flow/match_parser.h"

#include <algorithm>
#include <set>

#include "switch/flow/match_fields.h"
#include "switch/flow/refused.h"
#include "switch/flow/suggest.h"
#include "switch/flow/unsupported.h"
#include "switch/flow/vlan_tci.h"

namespace ofswitch {
namespace {

// Words that stand for an Ethernet type and an IP protocol.
struct ProtocolRow {
  std::string_view name;
  Masked<uint16_t> ethType;
  Masked<uint8_t> ipProto;
};

constexpr Masked<uint16_t> type(uint16_t value) { return {value, 0xffff}; }
constexpr Masked<uint8_t> proto(uint8_t value) { return {value, 0xff}; }

constexpr ProtocolRow kProtocols[] = {
    {"eth", {}, {}},
    {"ip", type(kEthTypeIpv4), {}},
    {"icmp", type(kEthTypeIpv4), proto(kProtoIcmp)},
    {"tcp", type(kEthTypeIpv4), proto(kProtoTcp)},
    {"udp", type(kEthTypeIpv4), proto(kProtoUdp)},
    {"sctp", type(kEthTypeIpv4), proto(kProtoSctp)},
    {"ipv6", type(kEthTypeIpv6), {}},
    {"icmp6", type(kEthTypeIpv6), proto(kProtoIcmpv6)},
    {"tcp6", type(kEthTypeIpv6), proto(kProtoTcp)},
    {"udp6", type(kEthTypeIpv6), proto(kProtoUdp)},
    {"sctp6", type(kEthTypeIpv6), proto(kProtoSctp)},
    {"arp", type(kEthTypeArp), {}},
    {"rarp", type(kEthTypeRarp), {}},
    {"mpls", type(0x8847), {}},
    {"mplsm", type(0x8848), {}},
};

const FieldRow* findField(std::string_view name) {
  if (name.empty()) return nullptr;  // a field with one name has no second
  for (const FieldRow& row : matchFields()) {
    if (row.names[0] == name || row.names[1] == name) return &row;
  }
  return nullptr;
}

const ProtocolRow* findProtocol(std::string_view name) {
  const auto* row = std::ranges::find(kProtocols, name, &ProtocolRow::name);
  return row == std::end(kProtocols) ? nullptr : row;
}

[[noreturn]] void refuseWord(const Word& word) {
  if (const auto reason = unsupportedField(word.key)) {
    refuse("{}: {}", word.text, *reason);
  }
  std::vector<std::string_view> known = matchWords();
  for (const std::string_view name :
       {"table", "priority", "cookie", "idle_timeout", "hard_timeout"}) {
    known.push_back(name);
  }
  refuse("unknown field \"{}\"{}", word.key, suggest(word.key, known));
}

}  // namespace

Match parseMatch(std::span<const Word> words) {
  MatchBuilder b;
  std::set<const FieldRow*> seen;
  for (const Word& word : words) {
    if (const ProtocolRow* row = findProtocol(word.key)) {
      if (word.hasValue) refuse("{}: takes no value", word.text);
      constrain(&b.match.ethType, row->ethType, word);
      constrain(&b.match.ipProto, row->ipProto, word);
      continue;
    }
    const FieldRow* row = findField(word.key);
    if (row == nullptr) refuseWord(word);
    if (word.value.empty()) {
      refuse("{}: needs a value, {}=VALUE", word.text, word.key);
    }
    if (!seen.insert(row).second) {
      refuse("{}: the field stands in the flow twice", word.text);
    }
  }
  for (const FieldStage stage :
       {FieldStage::kEthType, FieldStage::kIpProto, FieldStage::kOther}) {
    for (const Word& word : words) {
      const FieldRow* row = findField(word.key);
      if (row != nullptr && row->stage == stage) row->add(&b, word);
    }
  }
  b.match.vlanTci = vlanKeyConstraint(b.vlan, b.vlanWord);
  return b.match;
}

std::vector<std::string_view> matchWords() {
  std::vector<std::string_view> words;
  for (const FieldRow& row : matchFields()) {
    for (const std::string_view name : row.names) {
      if (!name.empty()) words.push_back(name);
    }
  }
  for (const ProtocolRow& row : kProtocols) words.push_back(row.name);
  return words;
}

}  // namespace ofswitch
