// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string>
#include <vector>

#include "switch/flow/flow.h"
#include "switch/live/config.h"

namespace ofswitch {

// What the flow files of a configuration say. With refusals, nothing of it may
// be applied.
struct ConfiguredFlows {
  std::vector<Flow> flows;            // in the order of files and lines
  std::vector<std::string> refusals;  // a line each, for a person
};

ConfiguredFlows readFlowFiles(const SwitchConfig& config);

}  // namespace ofswitch
