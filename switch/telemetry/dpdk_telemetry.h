// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string>

#include "switch/live/live_switch.h"

namespace ofswitch {

// Answers about a switch on the telemetry socket of DPDK, which
// dpdk-telemetry.py speaks to:
//
//   /ofswitch/stats                 sums
//   /ofswitch/ports[,PORT]          all ports in short, or one
//   /ofswitch/tables[,TABLE]        tables in use in short, or one
//   /ofswitch/flows,TABLE[,START]   flows from a position on, as many as fit
//
// DPDK asks on threads of its own and never forgets a command. The commands
// therefore outlive this object; without one they answer that no switch runs.
class DpdkTelemetry {
 public:
  // One a process at a time. The switch must outlive it.
  explicit DpdkTelemetry(const LiveSwitch& live);
  // Waits for a question that is being answered.
  ~DpdkTelemetry();
  DpdkTelemetry(const DpdkTelemetry&) = delete;
  DpdkTelemetry& operator=(const DpdkTelemetry&) = delete;

  // What to type to ask this process.
  static std::string command();
};

}  // namespace ofswitch
