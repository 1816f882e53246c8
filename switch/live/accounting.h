// SPDX-License-Identifier: BSD-3-Clause
//
// Where every packet went. A received packet walks from table to table until
// it ends at one rule, or at none:
//
//   packets received = forwarded + dropped by each cause, by table
//
// On its way it leaves copies for output gates:
//
//   copies for gates  = handed to ports and controller + no such port
//   handed to a port  = sent + dropped by each cause of the port
//
// The sides come from different hands: the ports' counters, the flows'
// counters, the module's dead ends, the gates, the packet pool. Every one of
// them is written by one worker at a time, so that they are exact with any
// number of workers.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "openflow.pb.h"
#include "ports/port_stats.h"
#include "switch.pb.h"
#include "switch/live/controller_port.h"
#include "switch/live/drop_causes.h"
#include "switch/live/flow_book.h"

namespace ofswitch {

// What was measured.
struct SwitchCounts {
  struct Port {
    uint16_t number = 0;
    bess::PortStats stats;
    uint64_t gatePackets = 0;  // that left the module at its gate
  };
  std::vector<Port> ports;
  ControllerPort::Counts controller;
  uint64_t controllerGatePackets = 0;
  FlowBook::Matched matched;
  // Read again after a grace period; the same if exact.
  FlowBook::Matched matchedLater;
  std::array<quil::pb::OpenFlowGetStatsRespArg, kNumTables> tables;
  uint64_t deadEnds = 0;      // of the module
  uint64_t failedCopies = 0;  // of the host's packets
  bool exact = false;         // no packet was received during the reading
};

struct TableAccount {
  uint64_t entered = 0;
  uint64_t matched = 0;  // by flows of the operator
  uint64_t forwarded = 0;
  std::array<uint64_t, kSwitchDrops.size()> drops = {};

  uint64_t drop(SwitchDrop cause) const {
    return drops[static_cast<size_t>(cause)];
  }
};

struct SwitchAccount {
  uint64_t received = 0;
  uint64_t forwarded = 0;
  uint64_t inFlight = 0;
  uint64_t copiesOutput = 0;
  uint64_t sent = 0;
  std::array<TableAccount, kNumTables> tables;
  std::array<uint64_t, kSwitchDrops.size()> drops = {};  // all tables together
  bool exact = false;
  std::vector<std::string> discrepancies;  // sentences; none if it closes
};

// Drops that nobody counts, but that are missing in the sums. While packets
// are under way a difference of sums is uncertain by those; kept over readings,
// what is certain never shrinks.
struct MissingPackets {
  std::array<uint64_t, kNumTables> inTable = {};
  uint64_t atGates = 0;
};

// `missing` is what earlier readings of the same switch have found.
SwitchAccount makeSwitchAccount(const SwitchCounts& counts,
                                MissingPackets* missing);

pb::DropCause dropCause(SwitchDrop cause, uint64_t packets);
pb::DropCause dropCause(const bess::DropCauseInfo& cause, uint64_t packets,
                        uint16_t port);

}  // namespace ofswitch
