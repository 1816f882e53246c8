// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string>

#include "switch/replay/account.h"
#include "switch/replay/policy.h"

namespace ofswitch {

// What a replay did, as tables for people.
std::string textReport(const Policy& policy, const ReplayCounts& counts,
                       const Account& account);

// The same and more as JSON. A table's entries have the names of the statistics
// message.
std::string jsonReport(const Policy& policy, const ReplayCounts& counts,
                       const Account& account);

}  // namespace ofswitch
