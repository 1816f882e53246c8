// SPDX-License-Identifier: BSD-3-Clause
//
// Replies of a running switch as people read them.
#pragma once

#include <string>

#include "switch.pb.h"

namespace ofswitch {

std::string tablesText(const pb::TablesReply& reply);
std::string portsText(const pb::PortsReply& reply);

// With the rates since `before`, an earlier reading, unless it is null.
std::string statsText(const pb::StatsReply& now, const pb::StatsReply* before);

// One line, as the switch writes it to its standard error; the time is local.
std::string logLine(const pb::LogEntry& entry);

}  // namespace ofswitch
