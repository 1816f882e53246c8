// SPDX-License-Identifier: BSD-3-Clause
#include "switch/flow/flow_printer.h"

#include <fmt/format.h>

#include <string_view>

#include "switch/flow/numbers.h"
#include "switch/flow/tcp_flags.h"
#include "switch/flow/vlan_tci.h"

namespace ofswitch {
namespace {

// Joins words by commas.
class Line {
 public:
  template <class... Args>
  void add(fmt::format_string<Args...> format, Args&&... args) {
    if (!text_.empty()) text_ += ',';
    text_ += fmt::format(format, std::forward<Args>(args)...);
  }
  std::string take() { return std::move(text_); }

 private:
  std::string text_;
};

std::string_view ipProtocolWord(const Match& m) {
  const bool v6 = m.isIpv6();
  if (m.isTcp()) return v6 ? "tcp6" : "tcp";
  if (m.isUdp()) return v6 ? "udp6" : "udp";
  if (m.isIcmpv4()) return "icmp";
  if (m.isIcmpv6()) return "icmp6";
  if (m.isIpProto(kProtoSctp)) return v6 ? "sctp6" : "sctp";
  return {};
}

void addProtocol(Line* line, const Match& m) {
  if (m.ethType.any()) return;
  if (const std::string_view word = ipProtocolWord(m); !word.empty()) {
    line->add("{}", word);
    return;
  }
  switch (m.ethType.value) {
    case kEthTypeIpv4:
      line->add("ip");
      break;
    case kEthTypeIpv6:
      line->add("ipv6");
      break;
    case kEthTypeArp:
      line->add("arp");
      break;
    case kEthTypeRarp:
      line->add("rarp");
      break;
    default:
      line->add("dl_type=0x{:04x}", m.ethType.value);
  }
  if (!m.ipProto.any()) line->add("nw_proto={}", m.ipProto.value);
}

void addVlan(Line* line, const Masked<uint16_t>& tci) {
  if (tci.any()) return;
  const unsigned vid = tci.value & kVlanVidBits;
  const unsigned pcp = tci.value >> 13;
  if (tci.value != 0 && tci.mask == kVlanVidBits) {
    line->add("dl_vlan={}", vid);
  } else if (tci.value != 0 && tci.mask == kVlanPcpBits) {
    line->add("dl_vlan_pcp={}", pcp);
  } else if (tci.value != 0 && tci.mask == (kVlanVidBits | kVlanPcpBits)) {
    line->add("dl_vlan={},dl_vlan_pcp={}", vid, pcp);
  } else {
    line->add("vlan_tci=0x{:04x}/0x{:04x}", tci.value, tci.mask);
  }
}

void addMac(Line* line, const char* name, const Masked<uint64_t>& mac) {
  if (mac.any()) return;
  if (mac.mask == kMacBits) {
    line->add("{}={}", name, macText(mac.value));
  } else {
    line->add("{}={}/{}", name, macText(mac.value), macText(mac.mask));
  }
}

std::string addressText(uint32_t address) { return ipv4Text(address); }
std::string addressText(Uint128 address) { return ipv6Text(address); }

template <class T>
void addAddress(Line* line, const char* name, const Masked<T>& address) {
  if (address.any()) return;
  if (address.isExact()) {
    line->add("{}={}", name, addressText(address.value));
  } else if (const auto length = prefixLength(address.mask)) {
    line->add("{}={}/{}", name, addressText(address.value), *length);
  } else {
    line->add("{}={}/{}", name, addressText(address.value),
              addressText(address.mask));
  }
}

void addTosAndTtl(Line* line, const Match& m) {
  if ((m.ipTos.mask & 0xfc) != 0) line->add("nw_tos={}", m.ipTos.value & 0xfc);
  if ((m.ipTos.mask & 0x03) != 0) line->add("nw_ecn={}", m.ipTos.value & 0x03);
  if (m.ipTtl.isExact()) {
    line->add("nw_ttl={}", m.ipTtl.value);
  } else if (!m.ipTtl.any()) {
    line->add("nw_ttl={}/0x{:02x}", m.ipTtl.value, m.ipTtl.mask);
  }
}

template <class T>
void addNumber(Line* line, const char* name, const Masked<T>& number) {
  if (!number.any()) line->add("{}={}", name, number.value);
}

std::string controllerText(ControllerReason reason) {
  switch (reason) {
    case ControllerReason::kNoMatch:
      return "controller(reason=no_match)";
    case ControllerReason::kInvalidTtl:
      return "controller(reason=invalid_ttl)";
    case ControllerReason::kAction:
      break;
  }
  return "controller(reason=action)";
}

}  // namespace

std::string matchText(const Match& m) {
  Line line;
  addNumber(&line, "in_port", m.inPort);
  addProtocol(&line, m);
  addVlan(&line, m.vlanTci);
  addMac(&line, "dl_src", m.ethSrc);
  addMac(&line, "dl_dst", m.ethDst);
  addAddress(&line, "nw_src", m.ipv4Src);
  addAddress(&line, "nw_dst", m.ipv4Dst);
  addAddress(&line, "ipv6_src", m.ipv6Src);
  addAddress(&line, "ipv6_dst", m.ipv6Dst);
  addAddress(&line, "arp_tpa", m.arpTpa);
  addTosAndTtl(&line, m);
  addNumber(&line, "tp_src", m.l4Src);
  addNumber(&line, "tp_dst", m.l4Dst);
  addNumber(&line, "icmp_type", m.icmpType);
  addNumber(&line, "icmp_code", m.icmpCode);
  if (!m.tcpFlags.any()) line.add("tcp_flags={}", tcpFlagsText(m.tcpFlags));
  return line.take();
}

std::string actionText(const Action& action, const Match& match) {
  const uint64_t v = action.value;
  const char* icmp = match.isIcmpv6() ? "icmpv6" : "icmp";
  switch (action.kind) {
    case ActionKind::kOutput:
      return fmt::format("output:{}", v);
    case ActionKind::kInPort:
      return "in_port";
    case ActionKind::kAll:
      return "all";
    case ActionKind::kFlood:
      return "flood";
    case ActionKind::kController:
      return controllerText(static_cast<ControllerReason>(v));
    case ActionKind::kDrop:
      return "drop";
    case ActionKind::kGoto:
      return fmt::format("goto_table:{}", v);
    case ActionKind::kSetEthSrc:
      return "mod_dl_src:" + macText(v);
    case ActionKind::kSetEthDst:
      return "mod_dl_dst:" + macText(v);
    case ActionKind::kSetVlanVid:
      return fmt::format("mod_vlan_vid:{}", v);
    case ActionKind::kSetVlanPcp:
      return fmt::format("mod_vlan_pcp:{}", v);
    case ActionKind::kEditVlanVid:
      return fmt::format("set_field:{}->vlan_vid", kVlanPresent | v);
    case ActionKind::kEditVlanPcp:
      return fmt::format("set_field:{}->vlan_pcp", v);
    case ActionKind::kPopVlan:
      return "strip_vlan";
    case ActionKind::kPushVlan:
      return "push_vlan:0x8100";
    case ActionKind::kSetIpv4Src:
      return "mod_nw_src:" + ipv4Text(static_cast<uint32_t>(v));
    case ActionKind::kSetIpv4Dst:
      return "mod_nw_dst:" + ipv4Text(static_cast<uint32_t>(v));
    case ActionKind::kSetDscp:
      return fmt::format("mod_nw_tos:{}", v);
    case ActionKind::kSetEcn:
      return fmt::format("mod_nw_ecn:{}", v);
    case ActionKind::kSetL4Src:
      return fmt::format("mod_tp_src:{}", v);
    case ActionKind::kSetL4Dst:
      return fmt::format("mod_tp_dst:{}", v);
    case ActionKind::kSetIcmpType:
      return fmt::format("set_field:{}->{}_type", v, icmp);
    case ActionKind::kSetIcmpCode:
      return fmt::format("set_field:{}->{}_code", v, icmp);
    case ActionKind::kDecTtl:
      return "dec_ttl";
  }
  return {};
}

std::string flowText(const Flow& flow) {
  Line line;
  line.add("table={}", flow.table);
  line.add("priority={}", flow.priority);
  if (flow.cookie != 0) line.add("cookie=0x{:x}", flow.cookie);
  if (flow.idleTimeout != 0) line.add("idle_timeout={}", flow.idleTimeout);
  if (flow.hardTimeout != 0) line.add("hard_timeout={}", flow.hardTimeout);
  if (flow.match != Match{}) line.add("{}", matchText(flow.match));
  Line actions;
  for (const Action& action : flow.actions) {
    actions.add("{}", actionText(action, flow.match));
  }
  line.add("actions={}", actions.take());
  return line.take();
}

}  // namespace ofswitch
