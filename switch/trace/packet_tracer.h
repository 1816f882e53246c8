// SPDX-License-Identifier: BSD-3-Clause
//
// Explains what the flows in force would do to one packet.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "switch.pb.h"
#include "switch/flow/module_rules.h"
#include "switch/trace/table_probe.h"
#include "switch/trace/trace_request.h"

namespace ofswitch {

// How the tracer asks for the flows of the switch.
struct TraceFlows {
  using Installed = std::shared_ptr<const InstalledFlow>;
  struct Found {
    Installed installed;
    pb::FlowEntry entry;
  };
  using Visitor = std::function<void(const Installed&, uint64_t order)>;

  // The flow one of whose rules counts packets in this counter.
  std::function<std::optional<Found>(uint32_t packetCounter)> byCounter;
  // Visits all flows of a table.
  std::function<void(uint8_t table, const Visitor&)> visit;
};

// For the command thread, on which flows change: they hold still during a
// trace. Costs nothing until the first one.
class PacketTracer {
 public:
  // `ports` are those of the switch, `counters` the flow counters of a worker.
  PacketTracer(SwitchPorts ports, uint32_t counters, TraceFlows flows);

  // Throws an error whose text is for a person when it cannot be done now.
  pb::TraceReply trace(const TracedPacket& packet);

 private:
  // A packet on its way from table to table.
  class Walk;

  // The most bytes of frames that a reply tells of.
  static constexpr size_t kMaxOutputBytes = 1u << 20;

  SwitchPorts ports_;
  uint32_t counters_;
  TraceFlows flows_;
  std::unique_ptr<TableProbe> probe_;
};

}  // namespace ofswitch
