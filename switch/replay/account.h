// SPDX-License-Identifier: BSD-3-Clause
//
// Where every packet went. A received packet walks from table to table: each
// table matches it or misses it, and a matching flow may hand one copy of it to
// a later table. So its way through the tables is a line with one end, and
//
//   packets in = ends of ways:  sent on, dropped by a flow, TTL expired,
//                               without output, table misses,
//                               freed with a failed batch,
//                               not copied for the next table (pool dry)
//
// On its way a packet may leave any number of copies:
//
//   copies sent to connected gates = packets written, by gate
//   copies sent to other gates     = what the module dropped and did not handle
//   all of them together           = as many as the flows' actions ask for
//
// and in the end every packet buffer is back in the pool. The two sides of each
// line come from different hands: sources, the flows' counters, the tables'
// counters, the host's gates, the sinks. If they do not agree, something was
// lost, and the account says so.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "openflow.pb.h"
#include "switch/replay/policy.h"

namespace ofswitch {

// What was measured.
struct ReplayCounts {
  static constexpr int kNumTables = 32;

  // One flow of the module with its packets.
  struct Rule {
    PolicyRule::Kind kind = PolicyRule::Kind::kFlow;
    uint8_t table = 0;
    quil::pb::OfActionFields action;
    uint8_t nextTable = 0;  // when the action goes to a table
    // Copies that one packet leaves on its way, at least and at most: a list of
    // gates may leave out the one that the packet came from.
    uint32_t minOutputs = 0;
    uint32_t maxOutputs = 0;
    uint64_t packets = 0;
    uint64_t bytes = 0;
  };
  struct Port {
    uint16_t port = 0;
    uint64_t packetsIn = 0;
    uint64_t bytesIn = 0;
    uint64_t sentTo = 0;  // copies that the host has handed to the gate
    uint64_t packetsOut = 0;
    uint64_t bytesOut = 0;
    std::string file;  // what was written, or empty
  };

  // The answer to a "getStats" of a command list, in its turn: before any
  // packet has come.
  struct Reply {
    std::string where;
    quil::pb::OpenFlowGetStatsRespArg stats;
  };

  std::vector<Reply> replies;
  std::vector<Rule> rules;  // as in the policy
  std::array<quil::pb::OpenFlowGetStatsRespArg, kNumTables> tables;
  std::vector<Port> ports;    // ascending; port 0 is the controller's gate
  uint64_t dropped = 0;       // packets that the module dropped
  uint64_t failedCopies = 0;  // wanted, but the pool was dry
  uint64_t buffersInUse = 0;  // packet buffers that did not come back
  // Tables count events without locks, so that two workers may lose some.
  bool tableCountsExact = true;
};

struct Account {
  struct Table {
    uint64_t entered = 0;
    uint64_t matched = 0;
    uint64_t misses = 0;
    uint64_t dropActions = 0;  // by flows that say drop
    uint64_t ttlExpired = 0;   // by guards
    uint64_t emptyTable = 0;   // the table has no flow
    uint64_t noOutput = 0;
    uint64_t batchDropPackets = 0;  // freed because the lookup failed
    uint64_t notCopied = 0;         // should have entered; the pool was dry
  };

  std::array<Table, ReplayCounts::kNumTables> tables;

  // The ends of ways: they add up to packetsIn.
  uint64_t packetsIn = 0;
  uint64_t sent = 0;
  uint64_t dropActions = 0;
  uint64_t ttlExpired = 0;
  uint64_t emptyTable = 0;
  uint64_t noOutput = 0;
  uint64_t misses = 0;
  uint64_t batchDropPackets = 0;
  uint64_t notCopied = 0;

  // The copies: outputs is the sum of the two below it.
  uint64_t outputs = 0;
  uint64_t packetsOut = 0;
  uint64_t unconnected = 0;
  uint64_t outputsNotCopied = 0;  // prevented by a dry pool
  uint64_t buffersInUse = 0;

  std::vector<std::string> discrepancies;  // sentences; empty: it closes
  bool closes() const { return discrepancies.empty(); }
};

Account makeAccount(const ReplayCounts& counts);

}  // namespace ofswitch
