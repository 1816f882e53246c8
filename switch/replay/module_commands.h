// SPDX-License-Identifier: BSD-3-Clause
//
// An instance of the module in this process's host, and what is said to it.
// Everything throws std::runtime_error with a text for a person.
#pragma once

#include <google/protobuf/any.pb.h>

#include <cstdint>
#include <string>

#include "message.h"
#include "module.h"
#include "openflow.pb.h"
#include "switch/flow/update_batch.h"
#include "switch/replay/policy.h"
#include "switch/replay/update_failure.h"
#include "switch/replay/update_room.h"

namespace ofswitch {

// The instance's name in the host's graph.
inline constexpr char kModuleName[] = "openflow";

google::protobuf::Any packed(const google::protobuf::Message& message);

// Loads the plug-in, makes the instance, and binds table t to the slots 2t
// (IPv4) and 2t + 1 (IPv6). When it throws, the plug-in is not loaded.
Module* makeModule(const std::string& path);

quil::pb::OpenFlowGetStatsRespArg tableStats(uint32_t table);

// How an update went.
struct UpdateAnswer {
  std::string failure;   // why it has failed; empty on success
  bool isStored = true;  // the module has its flows, if without a classifier
};

// Sends an update, unless there is no room for it.
UpdateAnswer updateTable(const TableUpdate& update, Sender sender,
                         const MemorySettings& settings);

// An update that fails is told by its place, its table and the reason.
CommandResponse applyCommand(const PolicyCommand& command);

}  // namespace ofswitch
