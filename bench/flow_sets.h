// SPDX-License-Identifier: BSD-3-Clause
//
// Flow sets of several kinds, the same at every run.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "openflow.pb.h"

namespace bench {

struct FlowKind {
  const char* name;
  const char* description;
  // Flow i of a set that is `seed`'s, without identifier, counters and action.
  void (*make)(uint32_t seed, uint32_t i, quil::pb::OpenFlowAddFlow* flow);
};

// All of IPv4:
//   exact      TCP five-tuples
//   prefixes   destinations of a routing table, priority by prefix length
//   acl        prefix to prefix and a service, as routers filter
//   firewall   from anywhere or a few large nets to hosts and services
//   ipc        host or net to host or net, one of them anywhere at times, and
//              services at both ends, as in chains of a host's packet filter
//   macs       destination MACs, EtherType open
//   mixed      any few fields of layers 2 to 4, EtherType always set
//   open       nine in ten MACs with EtherType open, one in ten five-tuples
const std::vector<FlowKind>& flowKinds();
const FlowKind& flowKind(const std::string& name);

// Destinations of an IPv6 routing table, for what is of one family only.
const FlowKind& ipv6Prefixes();

// `count` flows with identifiers from 1, outputs to gate 2, and counters.
std::vector<quil::pb::OpenFlowAddFlow> makeFlows(const FlowKind& kind,
                                                 uint32_t count,
                                                 uint32_t seed = 1);

}  // namespace bench
