// SPDX-License-Identifier: BSD-3-Clause
//
// The contract of the module's commands, checked in front of it: the module
// takes what it is given, truncates what is too wide, and stops the process
// over a MAC address of the wrong length. Each function throws Refused with
// the path of the offending field and what would be right.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "openflow.pb.h"
#include "switch/flow/flow.h"

namespace ofswitch {

inline constexpr uint32_t kMaxFlowPriority = (1u << 29) - 1;  // of rte_acl
inline constexpr uint32_t kNumSlots = 65536;  // classifier slots of the host
inline constexpr uint32_t kMaxCounters = 1u << 23;  // of one worker

// Everything about an update but its adds and deletes.
void checkUpdate(const quil::pb::OpenFlowUpdateFlowsArg& update);
// One add; `path` is where it stands, such as "adds[3]".
void checkAdd(const quil::pb::OpenFlowAddFlow& add, uint32_t tableId,
              const std::string& path);
void checkGetStats(const quil::pb::OpenFlowGetStatsArg& argument);

// Which slots the tables are bound to. Two bindings of one slot would make
// one table publish into, and finally free, the classifier of the other.
class SlotBindings {
 public:
  // Table t starts with the slots 2t (IPv4) and 2t + 1 (IPv6).
  SlotBindings();

  // Checks a "setAclIds" and takes it over.
  void bind(const quil::pb::OpenFlowAclArg& argument);

 private:
  std::array<std::array<uint32_t, 2>, kNumTables> slots_;
};

}  // namespace ofswitch
