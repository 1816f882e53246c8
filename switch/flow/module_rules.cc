// SPDX-License-Identifier: BSD-3-Clause
#include "switch/flow/module_rules.h"

#include <fmt/format.h>

#include <utility>

#include "switch/flow/action_plan.h"
#include "switch/flow/encode.h"
#include "switch/flow/flow_printer.h"
#include "switch/flow/ttl_guard.h"

namespace ofswitch {

quil::pb::OfAction dropAction() {
  ActionPlan drop;
  drop.drop = true;
  return encodePlan(drop, {});
}

Flow missFlow(uint8_t table) {
  Flow flow;
  flow.table = table;
  flow.priority = 0;
  flow.actions.push_back({ActionKind::kDrop});
  return flow;
}

PreparedFlow prepareFlow(const Flow& flow, const SwitchPorts& ports) {
  const ActionPlan plan = planActions(flow);
  TtlGuards guards = ttlGuards(flow.match, plan);
  return {guards.flowDrops ? dropAction() : encodePlan(plan, ports),
          std::move(guards.matches)};
}

std::string flowKey(const Flow& flow) {
  return fmt::format("{},{},{}", flow.table, flow.priority,
                     matchText(flow.match));
}

}  // namespace ofswitch
