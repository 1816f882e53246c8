// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <vector>

#include "switch/flow/diagnostic.h"
#include "switch/flow/flow.h"
#include "switch/flow/module_rules.h"

namespace ofswitch {

// A note for each output of a flow to a port that the switch does not have: a
// mistyped port would else show only in packets that are missing.
std::vector<Diagnostic> unconnectedOutputs(const Flow& flow,
                                           const SwitchPorts& ports);

}  // namespace ofswitch
