// SPDX-License-Identifier: BSD-3-Clause
#include "switch/flow/action_parser.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <optional>
#include <string>

#include "switch/flow/flow.h"
#include "switch/flow/numbers.h"
#include "switch/flow/refused.h"
#include "switch/flow/set_field.h"
#include "switch/flow/suggest.h"
#include "switch/flow/unsupported.h"
#include "switch/flow/words.h"

namespace ofswitch {
namespace {

struct Builder {
  const Match& match;
  ControllerReason plainReason;
  bool inApplyActions = false;
  ParsedActions parsed = {};

  void add(ActionKind kind, uint64_t value = 0) {
    parsed.actions.push_back({kind, value});
  }
};

void parseInto(Builder* b, std::string_view text);

std::string lower(std::string_view text) {
  std::string lowered(text);
  std::ranges::transform(lowered, lowered.begin(),
                         [](unsigned char c) { return std::tolower(c); });
  return lowered;
}

void needsIp(const Builder& b, const Word& word) {
  if (!b.match.isIp()) {
    refuse("{}: needs ip or ipv6 in the match", word.text);
  }
}

void setEthSrc(Builder* b, const Word& word) {
  b->add(ActionKind::kSetEthSrc, parseMac(word.value, word.text));
}

void setEthDst(Builder* b, const Word& word) {
  b->add(ActionKind::kSetEthDst, parseMac(word.value, word.text));
}

void setVlanVid(Builder* b, const Word& word) {
  b->add(ActionKind::kSetVlanVid, parseNumber(word.value, 4095, word.text));
}

void setVlanPcp(Builder* b, const Word& word) {
  b->add(ActionKind::kSetVlanPcp, parseNumber(word.value, 7, word.text));
}

void editVlanVid(Builder* b, const Word& word) {
  b->add(ActionKind::kEditVlanVid, parseNumber(word.value, 4095, word.text));
}

void editVlanPcp(Builder* b, const Word& word) {
  b->add(ActionKind::kEditVlanPcp, parseNumber(word.value, 7, word.text));
}

void popVlan(Builder* b, const Word&) { b->add(ActionKind::kPopVlan); }

void pushVlan(Builder* b, const Word& word) {
  const uint64_t type = parseNumber(word.value, 0xffff, word.text);
  if (type != 0x8100) {
    refuse("{}: the module pushes 802.1Q tags only; write push_vlan:0x8100",
           word.text);
  }
  b->add(ActionKind::kPushVlan);
}

// OpenFlow 1.0 leaves packets other than IPv4 alone, and so does the module;
// only a match that rules IPv4 out makes the action meaningless.
void needsPossiblyIpv4(const Builder& b, const Word& word) {
  if (!b.match.ethType.any() && !b.match.isIpv4()) {
    refuse("{}: the flow matches no IPv4 packet", word.text);
  }
}

void setNwSrc(Builder* b, const Word& word) {
  needsPossiblyIpv4(*b, word);
  b->add(ActionKind::kSetIpv4Src, parseIpv4(word.value, word.text));
}

void setNwDst(Builder* b, const Word& word) {
  needsPossiblyIpv4(*b, word);
  b->add(ActionKind::kSetIpv4Dst, parseIpv4(word.value, word.text));
}

void setNwTos(Builder* b, const Word& word) {
  needsIp(*b, word);
  const uint64_t tos = parseNumber(word.value, 0xff, word.text);
  if ((tos & 0x03) != 0) {
    refuse(
        "{}: the low two bits are the ECN field; write "
        "mod_nw_tos:{},mod_nw_ecn:{}",
        word.text, tos & 0xfc, tos & 0x03);
  }
  b->add(ActionKind::kSetDscp, tos);
}

void setNwEcn(Builder* b, const Word& word) {
  needsIp(*b, word);
  b->add(ActionKind::kSetEcn, parseNumber(word.value, 3, word.text));
}

void setPort(Builder* b, const Word& word, ActionKind kind) {
  if (b->match.isIpProto(kProtoSctp)) {
    refuse("{}: the module rewrites the ports of TCP and UDP only", word.text);
  }
  if (!b->match.isTcp() && !b->match.isUdp()) {
    refuse("{}: needs tcp, udp, tcp6 or udp6 in the match", word.text);
  }
  b->add(kind, parseNumber(word.value, 0xffff, word.text));
}

void setTpSrc(Builder* b, const Word& word) {
  setPort(b, word, ActionKind::kSetL4Src);
}

void setTpDst(Builder* b, const Word& word) {
  setPort(b, word, ActionKind::kSetL4Dst);
}

void decTtl(Builder* b, const Word& word) {
  if (word.hasValue) {
    refuse(
        "{}: packets whose TTL expires go to no controller here; write "
        "dec_ttl",
        word.text);
  }
  if (!b->match.ethType.any() && !b->match.isIp()) {
    refuse("{}: the flow matches no IP packet", word.text);
  }
  b->add(ActionKind::kDecTtl);
}

void setField(Builder* b, const Word& word) {
  b->parsed.actions.push_back(parseSetField(word, b->match));
}

void drop(Builder* b, const Word&) { b->add(ActionKind::kDrop); }
void inPort(Builder* b, const Word&) { b->add(ActionKind::kInPort); }
void all(Builder* b, const Word&) { b->add(ActionKind::kAll); }
void flood(Builder* b, const Word&) { b->add(ActionKind::kFlood); }

void maxLength(const Word& word, std::string_view text) {
  if (parseNumber(text, 0xffff, word.text) != 0xffff) {
    refuse(
        "{}: the controller always gets the whole frame here; write "
        "controller(max_len=65535)",
        word.text);
  }
}

ControllerReason parseReason(const Word& word, std::string_view text) {
  if (text == "no_match") return ControllerReason::kNoMatch;
  if (text == "action") return ControllerReason::kAction;
  if (text == "invalid_ttl") return ControllerReason::kInvalidTtl;
  refuse("{}: the reason is action, no_match or invalid_ttl", word.text);
}

// "controller", "controller:65535", "controller(reason=...,max_len=...)".
void controller(Builder* b, const Word& word) {
  ControllerReason reason = b->plainReason;
  if (word.hasValue && !word.inParentheses) {
    maxLength(word, word.value);
  } else if (word.inParentheses) {
    for (const Word& option : splitWords(word.value)) {
      if (option.key == "reason") {
        reason = parseReason(word, option.value);
      } else if (option.key == "max_len") {
        maxLength(word, option.value);
      } else if (option.key != "id" || toNumber(option.value) != 0) {
        refuse(
            "{}: there is one controller here, which knows reason and "
            "max_len only; leave {} out",
            word.text, option.text);
      }
    }
  }
  b->add(ActionKind::kController, static_cast<uint64_t>(reason));
}

void addPort(Builder* b, const Word& word, std::string_view text) {
  const auto port = toNumber(text);
  if (!port || *port < 1 || *port > kMaxPort) {
    refuse("{}: ports are numbers from 1 to {}", word.text, kMaxPort);
  }
  b->add(ActionKind::kOutput, *port);
}

// "output:N", and "output:in_port" for every port that has a name.
void output(Builder* b, const Word& word) {
  if (word.inParentheses) {
    refuse("{}: packets are not cut short here; write output:PORT", word.text);
  }
  const std::string name = lower(word.value);
  if (name == "in_port") return inPort(b, word);
  if (name == "all") return all(b, word);
  if (name == "flood") return flood(b, word);
  if (name.starts_with("controller")) {
    const Word port = splitWords(name).front();
    if (port.key == "controller") return controller(b, port);
  }
  if (name == "normal" || name == "local" || name == "table" ||
      name == "none") {
    refuse("{}: {}", word.text, *unsupportedAction(name));
  }
  if (name.starts_with("reg") || name.find('[') != std::string::npos) {
    refuse("{}: the module has no registers; write output:PORT", word.text);
  }
  addPort(b, word, word.value);
}

void gotoTable(Builder* b, const Word& word) {
  const auto table = toNumber(word.value);
  if (!table || *table >= kNumTables) {
    refuse("{}: tables are numbers from 0 to {}", word.text, kNumTables - 1);
  }
  b->add(ActionKind::kGoto, *table);
}

// "resubmit(,TABLE)", which at the end of a list is goto_table.
void resubmit(Builder* b, const Word& word) {
  if (!word.inParentheses || !word.value.starts_with(',') ||
      word.value.size() < 2) {
    refuse(
        "{}: the in-port of a packet does not change; write "
        "goto_table:TABLE",
        word.text);
  }
  Word table = word;
  table.value = trim(word.value.substr(1));
  gotoTable(b, table);
}

// A line could hold them inside each other deeper than the stack goes.
void applyActions(Builder* b, const Word& word) {
  if (b->inApplyActions) {
    refuse("{}: stands inside apply_actions; write its actions there",
           word.text);
  }
  b->inApplyActions = true;
  parseInto(b, word.value);
  b->inApplyActions = false;
}

// Nothing ever stands in the action set here, so it is clear already.
void clearActions(Builder*, const Word&) {}

enum class Takes { kNothing, kValue, kMaybe };

struct ActionRow {
  std::string_view name;
  Takes takes;
  void (*add)(Builder*, const Word&);
};

constexpr ActionRow kActions[] = {
    {"output", Takes::kValue, output},
    {"in_port", Takes::kNothing, inPort},
    {"all", Takes::kNothing, all},
    {"flood", Takes::kNothing, flood},
    {"controller", Takes::kMaybe, controller},
    {"drop", Takes::kNothing, drop},
    {"goto_table", Takes::kValue, gotoTable},
    {"resubmit", Takes::kValue, resubmit},
    {"mod_dl_src", Takes::kValue, setEthSrc},
    {"mod_dl_dst", Takes::kValue, setEthDst},
    {"mod_vlan_vid", Takes::kValue, setVlanVid},
    {"set_vlan_vid", Takes::kValue, editVlanVid},
    {"mod_vlan_pcp", Takes::kValue, setVlanPcp},
    {"set_vlan_pcp", Takes::kValue, editVlanPcp},
    {"strip_vlan", Takes::kNothing, popVlan},
    {"pop_vlan", Takes::kNothing, popVlan},
    {"push_vlan", Takes::kValue, pushVlan},
    {"mod_nw_src", Takes::kValue, setNwSrc},
    {"mod_nw_dst", Takes::kValue, setNwDst},
    {"mod_nw_tos", Takes::kValue, setNwTos},
    {"mod_nw_ecn", Takes::kValue, setNwEcn},
    {"mod_tp_src", Takes::kValue, setTpSrc},
    {"mod_tp_dst", Takes::kValue, setTpDst},
    {"dec_ttl", Takes::kMaybe, decTtl},
    {"set_field", Takes::kValue, setField},
    {"apply_actions", Takes::kValue, applyActions},
    {"clear_actions", Takes::kNothing, clearActions},
};

void addWord(Builder* b, const Word& word) {
  const std::string name = lower(word.key);
  if (!word.hasValue && toNumber(word.key)) return addPort(b, word, word.key);
  const auto* row = std::ranges::find(kActions, name, &ActionRow::name);
  if (row == std::end(kActions)) {
    if (const auto reason = unsupportedAction(name)) {
      refuse("{}: {}", word.text, *reason);
    }
    refuse("unknown action \"{}\"{}", word.key, suggest(name, actionWords()));
  }
  if (row->takes == Takes::kNothing && word.hasValue) {
    refuse("{}: takes no value", word.text);
  }
  if (row->takes == Takes::kValue && word.value.empty()) {
    refuse("{}: needs a value, {}:VALUE", word.text, word.key);
  }
  row->add(b, word);
}

void parseInto(Builder* b, std::string_view text) {
  for (const Word& word : splitWords(text)) {
    addWord(b, word);
    b->parsed.words.resize(b->parsed.actions.size(), word.text);
  }
}

}  // namespace

ParsedActions parseActions(std::string_view text, const Match& match,
                           ControllerReason plainReason) {
  Builder b{match, plainReason};
  parseInto(&b, text);
  return std::move(b.parsed);
}

std::vector<std::string_view> actionWords() {
  std::vector<std::string_view> words;
  for (const ActionRow& row : kActions) words.push_back(row.name);
  return words;
}

}  // namespace ofswitch
