// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <compare>
#include <cstdint>

#include "switch/flow/module_rules.h"

namespace ofswitch {

// What becomes of a packet at the rule that matches it. Packets are accounted
// by it: a rule whose end changes starts to count in new counters.
struct RuleEnd {
  enum class Kind : uint8_t {
    kSent,        // at least one output
    kGoto,        // to `nextTable`, and perhaps to outputs, too
    kDropped,     // because the flow says so
    kTtlExpired,  // dec_ttl must not forward it
    kMissed,      // it met the table's miss flow
    kNoOutput,    // the flow says neither where to nor drop
  };

  Kind kind = Kind::kSent;
  uint8_t nextTable = 0;

  auto operator<=>(const RuleEnd&) const = default;
};

inline RuleEnd endOf(const Flow& flow, const PreparedFlow& prepared) {
  using Kind = RuleEnd::Kind;
  const quil::pb::OfActionFields& fields = prepared.action.fields();
  if (fields.gototbl()) {
    return {Kind::kGoto,
            static_cast<uint8_t>(prepared.action.values().nexttbl())};
  }
  if (fields.setoutputall() || fields.setoutputflood() ||
      fields.setoutputinport() || fields.setoutputcontroller()) {
    return {Kind::kSent};
  }
  if (!fields.setoutputdrop()) return {Kind::kNoOutput};
  // A flow that decrements the TTL of nothing but expired packets is a drop in
  // the module, too.
  const bool saysDrop =
      flow.actions.empty() || flow.actions.front().kind == ActionKind::kDrop;
  return {saysDrop ? Kind::kDropped : Kind::kTtlExpired};
}

}  // namespace ofswitch
