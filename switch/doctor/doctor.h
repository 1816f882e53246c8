// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string>
#include <vector>

#include "switch/doctor/finding.h"
#include "switch/doctor/machine.h"
#include "switch/live/config.h"

namespace ofswitch {

// What a machine has and lacks for a switch of this configuration. Looks only;
// changes nothing, and needs no permission.
std::vector<Finding> examine(const Machine& machine,
                             const SwitchConfig& config);

// Whether nothing keeps the switch from running.
bool healthy(const std::vector<Finding>& findings);

// For people: a line a finding, with its remedy on the next.
std::string findingsText(const std::vector<Finding>& findings);
// For programs.
std::string findingsJson(const std::vector<Finding>& findings);

}  // namespace ofswitch
