// SPDX-License-Identifier: BSD-3-Clause
#include "tests/support/flow.h"

#include <string>

namespace openflow_test {
namespace {

template <class Address>
std::string raw(const Address& address) {
  return std::string(address.begin(), address.end());
}

}  // namespace

Flow::Flow(uint32_t flowId, uint32_t priority) {
  message_.set_flowid(flowId);
  message_.set_priority(priority);
}

quil::pb::OfMatchFields* Flow::matches() {
  return message_.mutable_match()->mutable_fields();
}

quil::pb::OfMatchValues* Flow::matchValues() {
  return message_.mutable_match()->mutable_values();
}

quil::pb::OfActionFields* Flow::actions() {
  return message_.mutable_action()->mutable_fields();
}

quil::pb::OfActionValues* Flow::actionValues() {
  return message_.mutable_action()->mutable_values();
}

Flow& Flow::counters(uint32_t packetCounterId, uint32_t byteCounterId) {
  message_.set_packetcounterid(packetCounterId);
  message_.set_bytecounterid(byteCounterId);
  return *this;
}

Flow& Flow::ethDst(const Mac& address, const Mac& mask) {
  matches()->set_ethdst(true);
  matchValues()->set_ethdst(raw(address));
  matchValues()->set_ethdstmask(raw(mask));
  return *this;
}

Flow& Flow::ethSrc(const Mac& address, const Mac& mask) {
  matches()->set_ethsrc(true);
  matchValues()->set_ethsrc(raw(address));
  matchValues()->set_ethsrcmask(raw(mask));
  return *this;
}

Flow& Flow::ethType(uint32_t type) {
  matches()->set_ethtype(true);
  matchValues()->set_ethtype(type);
  return *this;
}

Flow& Flow::vlanVid(uint32_t vid, uint32_t mask) {
  matches()->set_vlanvid(true);
  matchValues()->set_vlanvid(vid);
  matchValues()->set_vlanvidmask(mask);
  return *this;
}

Flow& Flow::vlanPcp(uint32_t pcp) {
  matches()->set_vlanpcp(true);
  matchValues()->set_vlanpcp(pcp);
  return *this;
}

Flow& Flow::ipTos(uint32_t tos, uint32_t mask) {
  matches()->set_iptos(true);
  matchValues()->set_iptos(tos);
  matchValues()->set_iptosmask(mask);
  return *this;
}

Flow& Flow::ipTtl(uint32_t ttl, uint32_t mask) {
  matches()->set_ipttl(true);
  matchValues()->set_ipttl(ttl);
  matchValues()->set_ipttlmask(mask);
  return *this;
}

Flow& Flow::ipProto(uint32_t proto) {
  matches()->set_ipproto(true);
  matchValues()->set_ipproto(proto);
  return *this;
}

Flow& Flow::ipv4Src(uint32_t address, uint32_t mask) {
  matches()->set_ipv4src(true);
  matchValues()->set_ipv4src(address);
  matchValues()->set_ipv4srcmask(mask);
  return *this;
}

Flow& Flow::ipv4Dst(uint32_t address, uint32_t mask) {
  matches()->set_ipv4dst(true);
  matchValues()->set_ipv4dst(address);
  matchValues()->set_ipv4dstmask(mask);
  return *this;
}

Flow& Flow::ipv6Src(const Ip6& address, const Ip6& mask) {
  matches()->set_ipv6src(true);
  matchValues()->set_ipv6src(raw(address));
  matchValues()->set_ipv6srcmask(raw(mask));
  return *this;
}

Flow& Flow::ipv6Dst(const Ip6& address, const Ip6& mask) {
  matches()->set_ipv6dst(true);
  matchValues()->set_ipv6dst(raw(address));
  matchValues()->set_ipv6dstmask(raw(mask));
  return *this;
}

Flow& Flow::l4SrcPort(uint32_t port) {
  matches()->set_l4srcport(true);
  matchValues()->set_l4srcport(port);
  return *this;
}

Flow& Flow::l4DstPort(uint32_t port) {
  matches()->set_l4dstport(true);
  matchValues()->set_l4dstport(port);
  return *this;
}

Flow& Flow::tcpFlags(uint32_t flags, uint32_t mask) {
  matches()->set_tcpflags(true);
  matchValues()->set_tcpflags(flags);
  matchValues()->set_tcpflagsmask(mask);
  return *this;
}

Flow& Flow::icmpType(uint32_t type) {
  matches()->set_icmptype(true);
  matchValues()->set_icmptype(type);
  return *this;
}

Flow& Flow::icmpCode(uint32_t code) {
  matches()->set_icmpcode(true);
  matchValues()->set_icmpcode(code);
  return *this;
}

Flow& Flow::arpTpa(uint32_t address, uint32_t mask) {
  matches()->set_arptpa(true);
  matchValues()->set_arptpa(address);
  matchValues()->set_arptpamask(mask);
  return *this;
}

Flow& Flow::metadata(uint64_t value) {
  matches()->set_metadata(true);
  matchValues()->set_metadata(value);
  return *this;
}

Flow& Flow::popVlan() {
  actions()->set_popvlan(true);
  return *this;
}

Flow& Flow::setVlanVid(uint32_t vid) {
  actions()->set_setvlanvid(true);
  actionValues()->set_vlanvid(vid);
  return *this;
}

Flow& Flow::setVlanPcp(uint32_t pcp) {
  actions()->set_setvlanpcp(true);
  actionValues()->set_vlanpcp(pcp);
  return *this;
}

Flow& Flow::setEthDst(const Mac& address) {
  actions()->set_setethdst(true);
  actionValues()->set_ethdst(raw(address));
  return *this;
}

Flow& Flow::setEthSrc(const Mac& address) {
  actions()->set_setethsrc(true);
  actionValues()->set_ethsrc(raw(address));
  return *this;
}

Flow& Flow::decTtl() {
  actions()->set_decttl(true);
  return *this;
}

Flow& Flow::setIpTos(uint32_t tos) {
  actions()->set_setiptos(true);
  actionValues()->set_iptos(tos);
  return *this;
}

Flow& Flow::setIpv4Src(uint32_t address) {
  actions()->set_setipv4src(true);
  actionValues()->set_ipv4src(address);
  return *this;
}

Flow& Flow::setIpv4Dst(uint32_t address) {
  actions()->set_setipv4dst(true);
  actionValues()->set_ipv4dst(address);
  return *this;
}

Flow& Flow::setL4SrcPort(uint32_t port) {
  actions()->set_setl4srcport(true);
  actionValues()->set_l4srcport(port);
  return *this;
}

Flow& Flow::setL4DstPort(uint32_t port) {
  actions()->set_setl4dstport(true);
  actionValues()->set_l4dstport(port);
  return *this;
}

Flow& Flow::setIcmpType(uint32_t type) {
  actions()->set_seticmptype(true);
  actionValues()->set_icmptype(type);
  return *this;
}

Flow& Flow::setIcmpCode(uint32_t code) {
  actions()->set_seticmpcode(true);
  actionValues()->set_icmpcode(code);
  return *this;
}

Flow& Flow::gates(const std::vector<uint32_t>& gates) {
  actionValues()->clear_ogate();
  for (uint32_t gate : gates) {
    actionValues()->add_ogate(gate);
  }
  return *this;
}

Flow& Flow::outputAll(const std::vector<uint32_t>& to) {
  actions()->set_setoutputall(true);
  return gates(to);
}

Flow& Flow::flood(const std::vector<uint32_t>& to) {
  actions()->set_setoutputflood(true);
  return gates(to);
}

Flow& Flow::output(const std::vector<uint32_t>& to) {
  actions()->set_setoutputport(true);
  return gates(to);
}

Flow& Flow::outputInPort() {
  actions()->set_setoutputinport(true);
  return *this;
}

Flow& Flow::controller(uint32_t reason) {
  actions()->set_setoutputcontroller(true);
  actionValues()->set_outputcontrollerreason(reason);
  return *this;
}

Flow& Flow::trap(uint32_t reason) {
  actionValues()->set_outputcontrollertrap(true);
  return controller(reason);
}

Flow& Flow::drop() {
  actions()->set_setoutputdrop(true);
  return *this;
}

Flow& Flow::gotoTable(uint32_t table) {
  actions()->set_gototbl(true);
  actionValues()->set_nexttbl(table);
  return *this;
}

}  // namespace openflow_test
