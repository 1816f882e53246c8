// SPDX-License-Identifier: BSD-3-Clause
//
// What the running switch says about its tables, ports and packets. All on the
// command thread.
#pragma once

#include "switch.pb.h"
#include "switch/live/accounting.h"
#include "switch/live/flow_book.h"
#include "switch/live/flow_programmer.h"
#include "switch/live/switch_graph.h"

namespace ofswitch {

// Reads everything that the account needs. The workers go on; the reading says
// whether it caught a moment without packets.
SwitchCounts readCounts(const SwitchGraph& graph, const FlowBook& book);

pb::TablesReply tablesReply(const SwitchCounts& counts,
                            const SwitchAccount& account, const FlowBook& book,
                            const FlowProgrammer& programmer, bool all);
pb::PortsReply portsReply(const SwitchGraph& graph);
// The part of the statistics that the account and the graph know.
pb::StatsReply statsReply(const SwitchCounts& counts,
                          const SwitchAccount& account,
                          const SwitchGraph& graph);

}  // namespace ofswitch
