// SPDX-License-Identifier: BSD-3-Clause
#include "bench/flow_sets.h"

#include <array>
#include <random>
#include <span>
#include <stdexcept>

namespace bench {
namespace {

using quil::pb::OpenFlowAddFlow;

constexpr uint32_t kIpv4 = 0x0800;
constexpr uint32_t kIpv6 = 0x86dd;
constexpr uint32_t kIcmp = 1;
constexpr uint32_t kTcp = 6;
constexpr uint32_t kUdp = 17;

// Random numbers of one flow.
class Dice {
 public:
  Dice(uint32_t seed, uint32_t i) : engine_(seed * 1000003 + i) {}

  uint32_t bits() { return static_cast<uint32_t>(engine_()); }
  uint32_t below(uint32_t bound) { return bits() % bound; }
  bool oneIn(uint32_t bound) { return below(bound) == 0; }

 private:
  std::minstd_rand0 engine_;
};

// Builds the match of one flow.
class Match {
 public:
  explicit Match(OpenFlowAddFlow* flow)
      : fields_(*flow->mutable_match()->mutable_fields()),
        values_(*flow->mutable_match()->mutable_values()) {}

  void ethType(uint32_t type) {
    fixedBits_ += 16;
    fields_.set_ethtype(true);
    values_.set_ethtype(type);
  }
  void ipProto(uint32_t proto) {
    fixedBits_ += 8;
    fields_.set_ipproto(true);
    values_.set_ipproto(proto);
  }
  void ethDst(uint32_t low) {
    fixedBits_ += 48;
    fields_.set_ethdst(true);
    values_.set_ethdst(mac(low));
    values_.set_ethdstmask(std::string(6, '\xff'));
  }
  void ethSrc(uint32_t low) {
    fixedBits_ += 48;
    fields_.set_ethsrc(true);
    values_.set_ethsrc(mac(low));
    values_.set_ethsrcmask(std::string(6, '\xff'));
  }
  void vlan(uint32_t vid) {
    fixedBits_ += 12;
    fields_.set_vlanvid(true);
    values_.set_vlanvid(vid);
    values_.set_vlanvidmask(0x0fff);
  }
  void source(uint32_t address, unsigned length) {
    fixedBits_ += length;
    fields_.set_ipv4src(true);
    values_.set_ipv4src(address & mask(length));
    values_.set_ipv4srcmask(mask(length));
  }
  void destination(uint32_t address, unsigned length) {
    fixedBits_ += length;
    fields_.set_ipv4dst(true);
    values_.set_ipv4dst(address & mask(length));
    values_.set_ipv4dstmask(mask(length));
  }
  void ipv6Destination(uint64_t network, unsigned length) {
    fixedBits_ += length;
    fields_.set_ipv6dst(true);
    const uint64_t bits = length == 0 ? 0 : ~uint64_t{0} << (64 - length);
    values_.set_ipv6dst(ipv6(network & bits));
    values_.set_ipv6dstmask(ipv6(bits));
  }
  void sourcePort(uint32_t port) {
    fixedBits_ += 16;
    fields_.set_l4srcport(true);
    values_.set_l4srcport(port);
  }
  void destinationPort(uint32_t port) {
    fixedBits_ += 16;
    fields_.set_l4dstport(true);
    values_.set_l4dstport(port);
  }

  // Of flow number `i` in a set whose wider flows are behind the narrower
  // ones, as people write filters: else one that matches everything would hide
  // all flows before it, and the classifier leave them out. `i` is below 2^17.
  uint32_t narrowFirst(uint32_t i) const { return fixedBits_ << 17 | i; }

 private:
  static uint32_t mask(unsigned length) {
    return length == 0 ? 0 : ~uint32_t{0} << (32 - length);
  }
  // Of two vendors.
  static std::string mac(uint32_t low) {
    std::string bytes = low & 1 ? std::string("\x02\x1b\x21", 3)
                                : std::string("\x02\x50\x56", 3);
    for (const unsigned shift : {16, 8, 0}) {
      bytes.push_back(static_cast<char>(low >> shift));
    }
    return bytes;
  }
  // The address with these upper bits and no lower ones.
  static std::string ipv6(uint64_t upper) {
    std::string bytes(16, '\0');
    for (size_t i = 0; i < 8; i++) {
      bytes[i] = static_cast<char>(upper >> (56 - 8 * i));
    }
    return bytes;
  }

  quil::pb::OfMatchFields& fields_;
  quil::pb::OfMatchValues& values_;
  uint32_t fixedBits_ = 0;
};

// A prefix length as frequent as in routing tables: mostly /24, then /16 to
// /23.
unsigned routeLength(Dice& dice) {
  const uint32_t roll = dice.below(100);
  if (roll < 58) return 24;
  if (roll < 90) return 16 + dice.below(8);
  return roll < 96 ? 8 + dice.below(8) : 25 + dice.below(8);
}

constexpr std::array<uint16_t, 12> kServices = {
    22, 25, 53, 80, 110, 123, 143, 443, 3306, 5060, 8080, 8443};

uint32_t service(Dice& dice) { return kServices[dice.below(kServices.size())]; }

void makeExact(uint32_t seed, uint32_t i, OpenFlowAddFlow* flow) {
  Dice dice(seed, i);
  Match match(flow);
  match.ethType(kIpv4);
  match.ipProto(kTcp);
  match.source(0x0a000000 | dice.below(1 << 24), 32);
  match.destination(0xac100000 | dice.below(1 << 20), 32);
  match.sourcePort(1024 + dice.below(64000));
  match.destinationPort(service(dice));
  flow->set_priority(100);
}

void makePrefix(uint32_t seed, uint32_t i, OpenFlowAddFlow* flow) {
  Dice dice(seed, i);
  const unsigned length = routeLength(dice);
  Match match(flow);
  match.ethType(kIpv4);
  match.destination(dice.bits(), length);
  flow->set_priority(length);
}

// Mostly sites of 48 bits, then providers' networks.
void makeIpv6Prefix(uint32_t seed, uint32_t i, OpenFlowAddFlow* flow) {
  Dice dice(seed, i);
  const unsigned length = dice.below(2) == 0 ? 48 : 32 + dice.below(16);
  const uint64_t upper = 0x20000000 | dice.bits() >> 3;
  Match match(flow);
  match.ethType(kIpv6);
  match.ipv6Destination(upper << 32 | dice.bits(), length);
  flow->set_priority(length);
}

void makeAcl(uint32_t seed, uint32_t i, OpenFlowAddFlow* flow) {
  Dice dice(seed, i);
  Match match(flow);
  match.ethType(kIpv4);
  match.source(0x0a000000 | dice.below(1 << 24), 16 + dice.below(17));
  match.destination(0xc0a80000 | dice.below(1 << 16), 24 + dice.below(9));
  if (!dice.oneIn(10)) {
    match.ipProto(dice.oneIn(4) ? kUdp : kTcp);
    if (!dice.oneIn(5)) match.destinationPort(service(dice));
  }
  flow->set_priority(match.narrowFirst(i));
}

void makeFirewall(uint32_t seed, uint32_t i, OpenFlowAddFlow* flow) {
  Dice dice(seed, i);
  Match match(flow);
  match.ethType(kIpv4);
  if (dice.oneIn(3)) match.source(dice.below(16) << 24, 8);
  if (!dice.oneIn(10)) match.destination(0x0a000000 | dice.below(1 << 14), 32);
  if (!dice.oneIn(4)) {
    match.ipProto(dice.oneIn(3) ? kUdp : kTcp);
    match.destinationPort(dice.oneIn(2) ? service(dice) : dice.below(65536));
    if (dice.oneIn(8)) match.sourcePort(service(dice));
  }
  flow->set_priority(match.narrowFirst(i));
}

void makeIpc(uint32_t seed, uint32_t i, OpenFlowAddFlow* flow) {
  Dice dice(seed, i);
  constexpr std::array<unsigned, 8> kLengths = {8, 16, 24, 24, 28, 32, 32, 32};
  const auto length = [&] { return kLengths[dice.below(kLengths.size())]; };
  Match match(flow);
  match.ethType(kIpv4);
  const bool fromAnywhere = dice.oneIn(6);
  if (!fromAnywhere) match.source(dice.bits(), length());
  if (fromAnywhere || !dice.oneIn(6)) match.destination(dice.bits(), length());
  const uint32_t roll = dice.below(100);
  if (roll < 75) {
    match.ipProto(roll < 50 ? kTcp : kUdp);
    if (!dice.oneIn(3)) match.destinationPort(service(dice));
    if (dice.oneIn(4)) match.sourcePort(service(dice));
  } else if (roll < 85) {
    match.ipProto(kIcmp);
  }
  flow->set_priority(match.narrowFirst(i));
}

void makeMac(uint32_t seed, uint32_t i, OpenFlowAddFlow* flow) {
  Dice dice(seed, i);
  Match(flow).ethDst(dice.bits());
  flow->set_priority(10);
}

void makeMixed(uint32_t seed, uint32_t i, OpenFlowAddFlow* flow) {
  Dice dice(seed, i);
  Match match(flow);
  match.ethType(kIpv4);
  if (dice.oneIn(4)) match.vlan(1 + dice.below(100));
  if (dice.oneIn(3)) match.ethDst(dice.below(1000));
  if (dice.oneIn(6)) match.ethSrc(dice.below(1000));
  if (dice.oneIn(2)) match.source(0x0a000000 | dice.below(1 << 24), 24);
  if (!dice.oneIn(3)) match.destination(dice.bits(), routeLength(dice));
  if (dice.oneIn(2)) {
    match.ipProto(kTcp);
    if (dice.oneIn(2)) match.destinationPort(service(dice));
  }
  flow->set_priority(match.narrowFirst(i));
}

void makeOpen(uint32_t seed, uint32_t i, OpenFlowAddFlow* flow) {
  if (i % 10 == 0) {
    makeExact(seed, i, flow);
  } else {
    makeMac(seed, i, flow);
  }
}

}  // namespace

const std::vector<FlowKind>& flowKinds() {
  static const std::vector<FlowKind> kinds = {
      {"exact", "TCP five-tuples", makeExact},
      {"prefixes", "destination prefixes", makePrefix},
      {"acl", "ACL-like: prefix to prefix, service", makeAcl},
      {"firewall", "firewall-like: anywhere to host, service", makeFirewall},
      {"ipc", "IPC-like: host or net to host or net, services", makeIpc},
      {"macs", "destination MACs", makeMac},
      {"mixed", "any fields of L2 to L4, EtherType set", makeMixed},
      {"open", "MACs with EtherType open, five-tuples", makeOpen},
  };
  return kinds;
}

const FlowKind& flowKind(const std::string& name) {
  for (const FlowKind& kind : flowKinds()) {
    if (kind.name == name) return kind;
  }
  throw std::invalid_argument("no kind of flows is called " + name);
}

const FlowKind& ipv6Prefixes() {
  static const FlowKind kind = {"prefixes6", "IPv6 destination prefixes",
                                makeIpv6Prefix};
  return kind;
}

std::vector<OpenFlowAddFlow> makeFlows(const FlowKind& kind, uint32_t count,
                                       uint32_t seed) {
  std::vector<OpenFlowAddFlow> flows(count);
  for (uint32_t i = 0; i < count; i++) {
    OpenFlowAddFlow& flow = flows[i];
    kind.make(seed, i, &flow);
    flow.set_flowid(i + 1);
    flow.set_packetcounterid(2 * i);
    flow.set_bytecounterid(2 * i + 1);
    flow.mutable_action()->mutable_fields()->set_setoutputport(true);
    flow.mutable_action()->mutable_values()->add_ogate(2);
  }
  return flows;
}

}  // namespace bench
