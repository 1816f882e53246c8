// SPDX-License-Identifier: BSD-3-Clause
#include "switch/flow/encode.h"

#include <algorithm>
#include <string>

#include "switch/flow/refused.h"
#include "switch/flow/vlan_tci.h"

namespace ofswitch {
namespace {

std::string macBytes(uint64_t mac) {
  std::string bytes(6, '\0');
  for (int i = 5; i >= 0; i--, mac >>= 8) bytes[i] = static_cast<char>(mac);
  return bytes;
}

std::string ipv6Bytes(Uint128 address) {
  std::string bytes(16, '\0');
  for (int i = 15; i >= 0; i--, address >>= 8) {
    bytes[i] = static_cast<char>(address);
  }
  return bytes;
}

void encodeL2(const Match& m, quil::pb::OfMatchFields* fields,
              quil::pb::OfMatchValues* values) {
  if (!m.inPort.any()) {
    // The metadata of a packet is the port it came in by.
    fields->set_metadata(true);
    values->set_metadata(m.inPort.value);
  }
  if (!m.ethSrc.any()) {
    fields->set_ethsrc(true);
    values->set_ethsrc(macBytes(m.ethSrc.value));
    values->set_ethsrcmask(macBytes(m.ethSrc.mask));
  }
  if (!m.ethDst.any()) {
    fields->set_ethdst(true);
    values->set_ethdst(macBytes(m.ethDst.value));
    values->set_ethdstmask(macBytes(m.ethDst.mask));
  }
  if (!m.ethType.any()) {
    fields->set_ethtype(true);
    values->set_ethtype(m.ethType.value);
  }
}

// `vlanVid` covers the whole tag control word; `vlanPcp` adds the priority
// when it is compared whole.
void encodeVlan(Masked<uint16_t> tci, quil::pb::OfMatchFields* fields,
                quil::pb::OfMatchValues* values) {
  if ((tci.mask & kVlanPcpBits) == kVlanPcpBits) {
    fields->set_vlanpcp(true);
    values->set_vlanpcp(tci.value >> 13);
    tci.mask &= ~kVlanPcpBits;
    tci.value &= ~kVlanPcpBits;
  }
  if (!tci.any()) {
    fields->set_vlanvid(true);
    values->set_vlanvid(tci.value);
    values->set_vlanvidmask(tci.mask);
  }
}

void encodeL3(const Match& m, quil::pb::OfMatchFields* fields,
              quil::pb::OfMatchValues* values) {
  if (!m.ipTos.any()) {
    fields->set_iptos(true);
    values->set_iptos(m.ipTos.value);
    values->set_iptosmask(m.ipTos.mask);
  }
  if (!m.ipTtl.any()) {
    fields->set_ipttl(true);
    values->set_ipttl(m.ipTtl.value);
    values->set_ipttlmask(m.ipTtl.mask);
  }
  if (!m.ipProto.any()) {
    fields->set_ipproto(true);
    values->set_ipproto(m.ipProto.value);
  }
  if (!m.ipv4Src.any()) {
    fields->set_ipv4src(true);
    values->set_ipv4src(m.ipv4Src.value);
    values->set_ipv4srcmask(m.ipv4Src.mask);
  }
  if (!m.ipv4Dst.any()) {
    fields->set_ipv4dst(true);
    values->set_ipv4dst(m.ipv4Dst.value);
    values->set_ipv4dstmask(m.ipv4Dst.mask);
  }
  if (!m.ipv6Src.any()) {
    fields->set_ipv6src(true);
    values->set_ipv6src(ipv6Bytes(m.ipv6Src.value));
    values->set_ipv6srcmask(ipv6Bytes(m.ipv6Src.mask));
  }
  if (!m.ipv6Dst.any()) {
    fields->set_ipv6dst(true);
    values->set_ipv6dst(ipv6Bytes(m.ipv6Dst.value));
    values->set_ipv6dstmask(ipv6Bytes(m.ipv6Dst.mask));
  }
  if (!m.arpTpa.any()) {
    fields->set_arptpa(true);
    values->set_arptpa(m.arpTpa.value);
    values->set_arptpamask(m.arpTpa.mask);
  }
}

void encodeL4(const Match& m, quil::pb::OfMatchFields* fields,
              quil::pb::OfMatchValues* values) {
  if (!m.l4Src.any()) {
    fields->set_l4srcport(true);
    values->set_l4srcport(m.l4Src.value);
  }
  if (!m.l4Dst.any()) {
    fields->set_l4dstport(true);
    values->set_l4dstport(m.l4Dst.value);
  }
  if (!m.tcpFlags.any()) {
    fields->set_tcpflags(true);
    values->set_tcpflags(m.tcpFlags.value);
    values->set_tcpflagsmask(m.tcpFlags.mask);
  }
  if (!m.icmpType.any()) {
    fields->set_icmptype(true);
    values->set_icmptype(m.icmpType.value);
  }
  if (!m.icmpCode.any()) {
    fields->set_icmpcode(true);
    values->set_icmpcode(m.icmpCode.value);
  }
}

void encodeRewrites(const Rewrites& r, quil::pb::OfActionFields* fields,
                    quil::pb::OfActionValues* values) {
  if (r.popVlan) fields->set_popvlan(true);
  if (r.vlanVid) {
    fields->set_setvlanvid(true);
    values->set_vlanvid(*r.vlanVid);
  }
  if (r.vlanPcp) {
    fields->set_setvlanpcp(true);
    values->set_vlanpcp(*r.vlanPcp);
  }
  if (r.ethSrc) {
    fields->set_setethsrc(true);
    values->set_ethsrc(macBytes(*r.ethSrc));
  }
  if (r.ethDst) {
    fields->set_setethdst(true);
    values->set_ethdst(macBytes(*r.ethDst));
  }
  if (r.ipv4Src) {
    fields->set_setipv4src(true);
    values->set_ipv4src(*r.ipv4Src);
  }
  if (r.ipv4Dst) {
    fields->set_setipv4dst(true);
    values->set_ipv4dst(*r.ipv4Dst);
  }
  if (r.ipTos) {
    fields->set_setiptos(true);
    values->set_iptos(*r.ipTos);
  }
  if (r.l4Src) {
    fields->set_setl4srcport(true);
    values->set_l4srcport(*r.l4Src);
  }
  if (r.l4Dst) {
    fields->set_setl4dstport(true);
    values->set_l4dstport(*r.l4Dst);
  }
  if (r.icmpType) {
    fields->set_seticmptype(true);
    values->set_icmptype(*r.icmpType);
  }
  if (r.icmpCode) {
    fields->set_seticmpcode(true);
    values->set_icmpcode(*r.icmpCode);
  }
  if (r.decTtl) fields->set_decttl(true);
}

// OpenFlow never sends a packet back to its in-port by number, so the list
// is always the one that leaves the in-port out.
void encodeOutputs(const ActionPlan& plan, std::span<const uint16_t> ports,
                   quil::pb::OfActionFields* fields,
                   quil::pb::OfActionValues* values) {
  if (plan.outputs.empty()) return;
  for (const PlannedOutput& output : plan.outputs) {
    if (output.allPorts) {
      values->mutable_ogate()->Add(ports.begin(), ports.end());
    } else {
      values->add_ogate(output.port);
    }
  }
  const size_t gates = static_cast<size_t>(values->ogate_size());
  if (gates > kMaxOutputGates) {
    refuse("sends {} copies; the module's output list holds {}", gates,
           kMaxOutputGates);
  }
  const bool floods =
      std::ranges::all_of(plan.outputs, &PlannedOutput::allPorts);
  if (floods) {
    fields->set_setoutputflood(true);
  } else {
    fields->set_setoutputall(true);
  }
}

}  // namespace

quil::pb::OpenFlowType familyOf(const Match& match) {
  return match.isIpv6() ? quil::pb::OPENFLOW_TYPE_IPV6
                        : quil::pb::OPENFLOW_TYPE_IPV4;
}

quil::pb::OfMatch encodeMatch(const Match& match) {
  quil::pb::OfMatch message;
  if (match == Match{}) return message;
  quil::pb::OfMatchFields* fields = message.mutable_fields();
  quil::pb::OfMatchValues* values = message.mutable_values();
  encodeL2(match, fields, values);
  encodeVlan(match.vlanTci, fields, values);
  encodeL3(match, fields, values);
  encodeL4(match, fields, values);
  return message;
}

quil::pb::OfAction encodePlan(const ActionPlan& plan,
                              std::span<const uint16_t> ports) {
  quil::pb::OfAction message;
  quil::pb::OfActionFields* fields = message.mutable_fields();
  quil::pb::OfActionValues* values = message.mutable_values();
  encodeRewrites(plan.rewrites, fields, values);
  encodeOutputs(plan, ports, fields, values);
  if (plan.inPort) fields->set_setoutputinport(true);
  if (plan.controller) {
    fields->set_setoutputcontroller(true);
    values->set_outputcontrollertrap(true);
    values->set_outputcontrollerreason(static_cast<uint32_t>(*plan.controller));
  }
  if (plan.drop) fields->set_setoutputdrop(true);
  if (plan.nextTable) {
    fields->set_gototbl(true);
    values->set_nexttbl(*plan.nextTable);
  }
  return message;
}

}  // namespace ofswitch
