// SPDX-License-Identifier: BSD-3-Clause
//
// A flow written in words, turned into the message that "updateFlows" takes:
//
//     Flow(7, 100).ethType(0x0800).ipv4Dst(ip4("10.0.0.0"),
//     0xff000000).decTtl().output({1, 2})
//
// Match words come first in the class, then action words; each sets a presence
// flag and its values.
#pragma once

#include <cstdint>
#include <vector>

#include "openflow.pb.h"
#include "tests/support/bytes.h"

namespace openflow_test {

inline constexpr Mac kFullMac = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
inline constexpr Ip6 kFullIp6 = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
                                 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
                                 0xff, 0xff, 0xff, 0xff};

class Flow {
 public:
  Flow(uint32_t flowId, uint32_t priority);

  Flow& counters(uint32_t packetCounterId, uint32_t byteCounterId);

  Flow& ethDst(const Mac& address, const Mac& mask = kFullMac);
  Flow& ethSrc(const Mac& address, const Mac& mask = kFullMac);
  Flow& ethType(uint32_t type);
  Flow& vlanVid(uint32_t vid, uint32_t mask = 0x0fff);
  Flow& vlanPcp(uint32_t pcp);
  Flow& ipTos(uint32_t tos, uint32_t mask = 0xff);
  Flow& ipTtl(uint32_t ttl, uint32_t mask = 0xff);
  Flow& ipProto(uint32_t proto);
  Flow& ipv4Src(uint32_t address, uint32_t mask = 0xffffffff);
  Flow& ipv4Dst(uint32_t address, uint32_t mask = 0xffffffff);
  Flow& ipv6Src(const Ip6& address, const Ip6& mask = kFullIp6);
  Flow& ipv6Dst(const Ip6& address, const Ip6& mask = kFullIp6);
  Flow& l4SrcPort(uint32_t port);
  Flow& l4DstPort(uint32_t port);
  Flow& tcpFlags(uint32_t flags, uint32_t mask = 0xff);
  Flow& icmpType(uint32_t type);
  Flow& icmpCode(uint32_t code);
  Flow& arpTpa(uint32_t address, uint32_t mask = 0xffffffff);
  Flow& metadata(uint64_t value);

  Flow& popVlan();
  Flow& setVlanVid(uint32_t vid);
  Flow& setVlanPcp(uint32_t pcp);
  Flow& setEthDst(const Mac& address);
  Flow& setEthSrc(const Mac& address);
  Flow& decTtl();
  Flow& setIpTos(uint32_t tos);
  Flow& setIpv4Src(uint32_t address);
  Flow& setIpv4Dst(uint32_t address);
  Flow& setL4SrcPort(uint32_t port);
  Flow& setL4DstPort(uint32_t port);
  Flow& setIcmpType(uint32_t type);
  Flow& setIcmpCode(uint32_t code);

  // The three share one gate list: the last one named fills it.
  Flow& outputAll(const std::vector<uint32_t>& gates);
  Flow& flood(const std::vector<uint32_t>& gates);
  Flow& output(const std::vector<uint32_t>& gates);
  Flow& outputInPort();
  Flow& controller(uint32_t reason);
  Flow& trap(uint32_t reason);
  Flow& drop();
  Flow& gotoTable(uint32_t table);

  // For what the words do not say.
  quil::pb::OpenFlowAddFlow& message() { return message_; }
  const quil::pb::OpenFlowAddFlow& message() const { return message_; }

 private:
  quil::pb::OfMatchFields* matches();
  quil::pb::OfMatchValues* matchValues();
  quil::pb::OfActionFields* actions();
  quil::pb::OfActionValues* actionValues();
  Flow& gates(const std::vector<uint32_t>& gates);

  quil::pb::OpenFlowAddFlow message_;
};

}  // namespace openflow_test
