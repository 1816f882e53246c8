// SPDX-License-Identifier: BSD-3-Clause
//
// An OpenFlow action list runs in its own order; every output sends the
// packet as it is at that moment. The module knows no order: it applies all
// rewrites of a flow, in one fixed order, and then sends all outputs. A plan
// is what the module has to be told so that every copy that leaves is the
// same; a list for which there is no such plan is refused.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "switch/flow/flow.h"

namespace ofswitch {

// Everything that the module can rewrite, as it is told to.
struct Rewrites {
  bool popVlan = false;
  std::optional<uint16_t> vlanVid;
  std::optional<uint8_t> vlanPcp;
  std::optional<uint64_t> ethSrc;
  std::optional<uint64_t> ethDst;
  std::optional<uint32_t> ipv4Src;
  std::optional<uint32_t> ipv4Dst;
  std::optional<uint8_t> ipTos;
  std::optional<uint16_t> l4Src;
  std::optional<uint16_t> l4Dst;
  std::optional<uint8_t> icmpType;
  std::optional<uint8_t> icmpCode;
  bool decTtl = false;

  bool operator==(const Rewrites&) const = default;
};

// One entry of the module's output list.
struct PlannedOutput {
  bool allPorts = false;
  uint16_t port = 0;

  bool operator==(const PlannedOutput&) const = default;
};

struct ActionPlan {
  Rewrites rewrites;
  std::vector<PlannedOutput> outputs;  // none of them to the in-port
  bool inPort = false;
  std::optional<ControllerReason> controller;
  bool drop = false;
  std::optional<uint8_t> nextTable;
};

// Throws Refused. `words` are the flow's actions as someone wrote them, for
// the message; without them it shows their normal form.
ActionPlan planActions(const Flow& flow,
                       std::span<const std::string_view> words = {});

}  // namespace ofswitch
