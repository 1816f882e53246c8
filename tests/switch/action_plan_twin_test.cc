// SPDX-License-Identifier: BSD-3-Clause
//
// Two simple switches over model packets: one runs action lists in OpenFlow's
// order, one does what a plan says in the module's order. Whatever list is
// accepted, both must send the same copies.
#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "switch/flow/action_plan.h"
#include "switch/flow/flow_printer.h"
#include "switch/flow/ttl_guard.h"
#include "tests/switch/flow_texts.h"

namespace ofswitch {
namespace {

struct ModelPacket {
  uint16_t inPort = 0;
  std::vector<uint16_t> tags;  // outermost first, all 802.1Q
  uint64_t ethSrc = 0, ethDst = 0;
  uint16_t ethType = 0;  // behind all tags
  uint8_t proto = 0, tos = 0, ttl = 0;
  uint32_t ipSrc = 0, ipDst = 0;
  uint16_t l4Src = 0, l4Dst = 0;
  uint8_t icmpType = 0, icmpCode = 0;

  auto operator<=>(const ModelPacket&) const = default;

  bool isIp() const {
    return ethType == kEthTypeIpv4 || ethType == kEthTypeIpv6;
  }
  bool isIcmp() const {
    return (ethType == kEthTypeIpv4 && proto == kProtoIcmp) ||
           (ethType == kEthTypeIpv6 && proto == kProtoIcmpv6);
  }
};

// Where a copy goes: a port, the controller with a reason, or a table.
using Copy = std::tuple<std::string, uint64_t, ModelPacket>;
using Copies = std::vector<Copy>;

const std::vector<uint16_t> kPorts = {1, 2, 3};

// The classifier key reads one tag; what lies behind two is hidden.
bool matches(const Match& m, const ModelPacket& p) {
  const auto agrees = [](auto field, auto value) {
    return (value & field.mask) == field.value;
  };
  const bool hidden = p.tags.size() > 1;
  const uint16_t tci = p.tags.empty() ? 0 : p.tags[0];
  if (!agrees(m.inPort, uint32_t{p.inPort})) return false;
  if (!agrees(m.vlanTci, tci)) return false;
  if (!agrees(m.ethType, hidden ? uint16_t{0x8100} : p.ethType)) return false;
  if (m.ethType.any()) return true;
  return agrees(m.ipProto, p.proto) && agrees(m.ipTos, p.tos) &&
         agrees(m.ipTtl, p.ttl);
}

// Rewrites that need no order.
void setL3(ActionKind kind, uint64_t value, ModelPacket* p) {
  const bool isV4 = p->ethType == kEthTypeIpv4;
  const bool hasPorts =
      p->isIp() && (p->proto == kProtoTcp || p->proto == kProtoUdp);
  switch (kind) {
    case ActionKind::kSetIpv4Src:
      if (isV4) p->ipSrc = static_cast<uint32_t>(value);
      break;
    case ActionKind::kSetIpv4Dst:
      if (isV4) p->ipDst = static_cast<uint32_t>(value);
      break;
    case ActionKind::kSetDscp:
      if (p->isIp()) p->tos = static_cast<uint8_t>(value | (p->tos & 3));
      break;
    case ActionKind::kSetEcn:
      if (p->isIp()) p->tos = static_cast<uint8_t>(value | (p->tos & 0xfc));
      break;
    case ActionKind::kSetL4Src:
      if (hasPorts) p->l4Src = static_cast<uint16_t>(value);
      break;
    case ActionKind::kSetL4Dst:
      if (hasPorts) p->l4Dst = static_cast<uint16_t>(value);
      break;
    case ActionKind::kSetIcmpType:
      if (p->isIcmp()) p->icmpType = static_cast<uint8_t>(value);
      break;
    case ActionKind::kSetIcmpCode:
      if (p->isIcmp()) p->icmpCode = static_cast<uint8_t>(value);
      break;
    default:
      break;
  }
}

Copies runOpenFlow(const Flow& flow, ModelPacket p) {
  Copies copies;
  const bool hidden = p.tags.size() > 1;  // headers are found on arrival
  for (const Action& action : flow.actions) {
    const uint64_t v = action.value;
    switch (action.kind) {
      case ActionKind::kOutput:
        if (v != p.inPort) copies.emplace_back("port", v, p);
        break;
      case ActionKind::kAll:
      case ActionKind::kFlood:
        for (const uint16_t port : kPorts) {
          if (port != p.inPort) copies.emplace_back("port", port, p);
        }
        break;
      case ActionKind::kInPort:
        copies.emplace_back("port", p.inPort, p);
        break;
      case ActionKind::kController:
        copies.emplace_back("controller", v, p);
        break;
      case ActionKind::kDrop:
        return {};
      case ActionKind::kGoto:
        copies.emplace_back("table", v, p);
        break;
      case ActionKind::kSetEthSrc:
        p.ethSrc = v;
        break;
      case ActionKind::kSetEthDst:
        p.ethDst = v;
        break;
      case ActionKind::kEditVlanVid:
        EXPECT_FALSE(p.tags.empty()) << flowText(flow);
        [[fallthrough]];
      case ActionKind::kSetVlanVid:
        if (p.tags.empty()) p.tags.push_back(0);
        p.tags[0] = static_cast<uint16_t>((p.tags[0] & 0xf000) | v);
        break;
      case ActionKind::kEditVlanPcp:
        EXPECT_FALSE(p.tags.empty()) << flowText(flow);
        [[fallthrough]];
      case ActionKind::kSetVlanPcp:
        if (p.tags.empty()) p.tags.push_back(0);
        p.tags[0] = static_cast<uint16_t>((p.tags[0] & 0x1fff) | v << 13);
        break;
      case ActionKind::kPopVlan:
        if (!p.tags.empty()) p.tags.erase(p.tags.begin());
        break;
      case ActionKind::kPushVlan:
        p.tags.insert(p.tags.begin(), 0);
        break;
      case ActionKind::kDecTtl:
        if (hidden || !p.isIp()) break;
        if (p.ttl <= 1) return copies;
        p.ttl--;
        break;
      default:
        if (!hidden) setL3(action.kind, v, &p);
    }
  }
  return copies;
}

void rewriteAsModule(const Rewrites& r, ModelPacket* p) {
  if (r.popVlan && !p->tags.empty()) p->tags.erase(p->tags.begin());
  if (r.vlanVid && p->tags.empty()) {
    p->tags.push_back(*r.vlanVid);
  } else if (r.vlanVid) {
    p->tags[0] = static_cast<uint16_t>((p->tags[0] & 0xf000) | *r.vlanVid);
  }
  if (r.ethDst) p->ethDst = *r.ethDst;
  if (r.ethSrc) p->ethSrc = *r.ethSrc;
  if (r.vlanPcp && !p->tags.empty()) {
    p->tags[0] =
        static_cast<uint16_t>((p->tags[0] & 0x1fff) | *r.vlanPcp << 13);
  }
  if (p->tags.size() > 1) return;  // looks for L3 behind one tag
  if (r.decTtl && p->isIp()) p->ttl--;
  if (r.ipTos && p->isIp()) p->tos = *r.ipTos;
  if (r.ipv4Src) setL3(ActionKind::kSetIpv4Src, *r.ipv4Src, p);
  if (r.ipv4Dst) setL3(ActionKind::kSetIpv4Dst, *r.ipv4Dst, p);
  if (r.l4Src) setL3(ActionKind::kSetL4Src, *r.l4Src, p);
  if (r.l4Dst) setL3(ActionKind::kSetL4Dst, *r.l4Dst, p);
  if (r.icmpType) setL3(ActionKind::kSetIcmpType, *r.icmpType, p);
  if (r.icmpCode) setL3(ActionKind::kSetIcmpCode, *r.icmpCode, p);
}

Copies runModule(const Flow& flow, const ActionPlan& plan, ModelPacket p) {
  const TtlGuards guards = ttlGuards(flow.match, plan);
  if (guards.flowDrops) return {};
  for (const Match& guard : guards.matches) {
    if (matches(guard, p)) return {};
  }
  rewriteAsModule(plan.rewrites, &p);
  Copies copies;
  for (const PlannedOutput& output : plan.outputs) {
    for (const uint16_t port :
         output.allPorts ? kPorts : std::vector<uint16_t>{output.port}) {
      if (port != p.inPort) copies.emplace_back("port", port, p);
    }
  }
  if (plan.inPort) copies.emplace_back("port", p.inPort, p);
  if (plan.controller) {
    copies.emplace_back("controller", static_cast<uint64_t>(*plan.controller),
                        p);
  }
  if (plan.nextTable) copies.emplace_back("table", *plan.nextTable, p);
  return copies;
}

class Generator {
 public:
  explicit Generator(unsigned seed) : random_(seed) {}

  Flow flow() {
    static const std::vector<std::string> kMatches = {"",
                                                      "ip",
                                                      "ipv6",
                                                      "tcp",
                                                      "udp6",
                                                      "icmp",
                                                      "icmp6",
                                                      "arp",
                                                      "dl_vlan=5",
                                                      "ip,dl_vlan=5",
                                                      "vlan_tci=0/0xefff",
                                                      "tcp,vlan_tci=0/0x0fff",
                                                      "ip,nw_ecn=1",
                                                      "udp,nw_tos=8",
                                                      "ip,nw_ttl=1",
                                                      "tcp6,nw_ttl=2",
                                                      "ip,nw_ttl=0/0xf0",
                                                      "in_port=2"};
    const std::string& match = kMatches[pick(kMatches.size())];
    Flow flow = FlowReader().readLine(match + " actions=drop");
    flow.actions.clear();
    for (size_t n = pick(6); n > 0; n--) flow.actions.push_back(action());
    return flow;
  }

  ModelPacket packet() {
    ModelPacket p;
    p.inPort = static_cast<uint16_t>(1 + pick(3));
    for (size_t n = pick(3); n > 0; n--) {
      constexpr uint16_t kTcis[] = {0x0000, 0x0005, 0x6005, 0xa000};
      p.tags.push_back(kTcis[pick(4)]);
    }
    constexpr uint16_t kTypes[] = {kEthTypeIpv4, kEthTypeIpv4, kEthTypeIpv6,
                                   kEthTypeIpv6, kEthTypeArp};
    p.ethType = kTypes[pick(5)];
    if (!p.isIp()) return p;
    constexpr uint8_t kProtos[] = {kProtoTcp, kProtoUdp, kProtoIcmp,
                                   kProtoIcmpv6, kProtoSctp};
    p.proto = kProtos[pick(5)];
    p.tos = static_cast<uint8_t>(pick(16));
    p.ttl = static_cast<uint8_t>(pick(4));
    return p;
  }

 private:
  size_t pick(size_t below) {
    return std::uniform_int_distribution<size_t>(0, below - 1)(random_);
  }

  Action action() {
    const auto kind = static_cast<ActionKind>(
        pick(static_cast<size_t>(ActionKind::kDecTtl) + 1));
    switch (kind) {
      case ActionKind::kController:
        return {kind, pick(3)};
      case ActionKind::kSetDscp:
        return {kind, 4 * (1 + pick(2))};
      case ActionKind::kSetEcn:
        return {kind, pick(4)};
      case ActionKind::kInPort:
      case ActionKind::kAll:
      case ActionKind::kFlood:
      case ActionKind::kDrop:
      case ActionKind::kPopVlan:
      case ActionKind::kPushVlan:
      case ActionKind::kDecTtl:
        return {kind, 0};
      default:
        return {kind, 1 + pick(3)};
    }
  }

  std::mt19937 random_;
};

// What the reader would refuse for its prerequisites alone.
bool hasPrerequisites(const Flow& flow) {
  return refusalOf(flowText(flow)).empty();
}

TEST(ActionPlanTwin, SendsWhatOpenFlowSends) {
  Generator generator(3);
  int plans = 0;
  int copies = 0;
  for (int i = 0; i < 60000; i++) {
    const Flow flow = generator.flow();
    if (!hasPrerequisites(flow)) continue;
    const ActionPlan plan = planActions(flow);
    plans++;
    for (int n = 0; n < 40; n++) {
      const ModelPacket packet = generator.packet();
      if (!matches(flow.match, packet)) continue;
      Copies expected = runOpenFlow(flow, packet);
      Copies actual = runModule(flow, plan, packet);
      std::ranges::sort(expected);
      std::ranges::sort(actual);
      copies += static_cast<int>(expected.size());
      ASSERT_EQ(actual, expected)
          << flowText(flow) << "\nin_port " << packet.inPort << " tags "
          << testing::PrintToString(packet.tags) << " type " << packet.ethType
          << " ttl " << int{packet.ttl};
    }
  }
  EXPECT_GT(plans, 5000);
  EXPECT_GT(copies, 20000);
}

}  // namespace
}  // namespace ofswitch
