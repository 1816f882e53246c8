// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstddef>
#include <string>

#include "openflow.pb.h"
#include "switch/flow/update_batch.h"
#include "switch/replay/update_failure.h"

namespace ofswitch {

// Who sends an update.
enum class Sender {
  kOperator,
  kUndo,  // takes back what was sent, also of the heap's reserve
};

// Whether DPDK's heap has room for an update, so that one it has no room for is
// not sent: the module takes a flow that it cannot store for the end of the
// process, and never frees the records of a build that failed. Answers what is
// missing, empty if nothing is. `stats` is the module's answer for the table.
//
// What has adds must fit into one free block, for then it fits in whatever
// order its parts are taken. Without adds nothing can happen but that the build
// fails, so that it is enough if no part is certain to be missing. Adds leave a
// reserve for what undoes them. The classifier itself is not counted, as its
// size is known when it is built.
//
// On the thread that sends updates: between here and there nobody else may take
// of the heap.
std::string missingRoom(const TableUpdate& update,
                        const quil::pb::OpenFlowGetStatsRespArg& stats,
                        Sender sender, const MemorySettings& settings);

}  // namespace ofswitch
