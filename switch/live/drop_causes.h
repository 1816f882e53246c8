// SPDX-License-Identifier: BSD-3-Clause
//
// The ends of a packet inside the switch other than an output, each with the
// name under which it is counted everywhere and a sentence for people. What
// ports add to it is in ports/drop_cause.h.
#pragma once

#include <array>
#include <cstddef>

namespace ofswitch {

enum class SwitchDrop {
  kTableMiss,
  kDropAction,
  kTtlExpired,
  kNoOutput,
  kLookupFailed,
  kNoBufferForTable,
  // From here on of copies that were to leave, not of the packets received.
  kNoSuchPort,
  kNoBufferForOutput,
  kControllerQueueFull,
  kControllerCaptureFailed,
};

struct SwitchDropInfo {
  SwitchDrop cause;
  const char* name;
  const char* sentence;
};

inline constexpr std::array kSwitchDrops = {
    SwitchDropInfo{SwitchDrop::kTableMiss, "table_miss",
                   "No flow of the table matched the packet."},
    SwitchDropInfo{SwitchDrop::kDropAction, "drop_action",
                   "The flow that matched says drop."},
    SwitchDropInfo{SwitchDrop::kTtlExpired, "ttl_expired",
                   "The flow decrements the TTL, and the packet's was 0 or 1."},
    SwitchDropInfo{SwitchDrop::kNoOutput, "no_output",
                   "The flow that matched names no output."},
    SwitchDropInfo{SwitchDrop::kLookupFailed, "lookup_failed",
                   "The table had no usable classifier, so that the packet's "
                   "batch was freed."},
    SwitchDropInfo{SwitchDrop::kNoBufferForTable, "no_buffer_for_table",
                   "The packet pool was empty when the packet was to go on to "
                   "this table; raise memory.buffers."},
    SwitchDropInfo{SwitchDrop::kNoSuchPort, "no_such_port",
                   "A flow sent a copy to a port that the switch does not "
                   "have."},
    SwitchDropInfo{SwitchDrop::kNoBufferForOutput, "no_buffer_for_output",
                   "The packet pool was empty when a copy was to leave; raise "
                   "memory.buffers."},
    SwitchDropInfo{SwitchDrop::kControllerQueueFull, "controller_capture_full",
                   "The disk was too slow for the controller's capture; the "
                   "packet was counted and logged."},
    SwitchDropInfo{SwitchDrop::kControllerCaptureFailed,
                   "controller_capture_failed",
                   "The controller's capture cannot be written any more; the "
                   "packet was counted and logged."},
};

constexpr const SwitchDropInfo& info(SwitchDrop cause) {
  return kSwitchDrops[static_cast<size_t>(cause)];
}

// The list is in the order of the enumeration.
static_assert([] {
  for (size_t i = 0; i < kSwitchDrops.size(); i++) {
    if (static_cast<size_t>(kSwitchDrops[i].cause) != i) return false;
  }
  return static_cast<size_t>(SwitchDrop::kControllerCaptureFailed) + 1 ==
         kSwitchDrops.size();
}());

}  // namespace ofswitch
