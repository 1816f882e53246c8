// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <array>
#include <cstddef>

namespace bess {

// Why a packet ended at a port. Every packet that a port's device has received
// is handed on or counted under one of the rx causes; every packet handed to a
// port is sent or counted under one of the tx causes.
enum class DropCause {
  kRxMissed,
  kRxNoBuffer,
  kRxError,
  kRxTooLong,
  kTxPortDown,
  kTxQueueFull,
  kTxTooLong,
  kTxTooShort,
  kTxTooManySegments,
  kTxError,
};

struct DropCauseInfo {
  DropCause cause;
  const char* name;      // for counters: lower case, underscores
  const char* sentence;  // for people: what happened, what helps
  bool receive;          // on the way in, otherwise on the way out
};

inline constexpr std::array kDropCauses = {
    DropCauseInfo{
        DropCause::kRxMissed, "rx_missed",
        "The device's receive queue was full: the workers were too slow.",
        true},
    DropCauseInfo{DropCause::kRxNoBuffer, "rx_no_buffer",
                  "The packet pool was empty when the device needed a buffer.",
                  true},
    DropCauseInfo{DropCause::kRxError, "rx_error",
                  "The device received a broken frame.", true},
    DropCauseInfo{DropCause::kRxTooLong, "rx_frame_too_long",
                  "The frame came longer than the interface's MTU allows: an "
                  "offload merged several (ethtool -K switches it off), or the "
                  "kernel IPv4 fragments.",
                  true},
    DropCauseInfo{DropCause::kTxPortDown, "tx_port_down",
                  "The port's link is down.", false},
    DropCauseInfo{DropCause::kTxQueueFull, "tx_queue_full",
                  "The device's transmit queue stayed full.", false},
    DropCauseInfo{DropCause::kTxTooLong, "tx_frame_too_long",
                  "The frame is longer than the port's MTU allows.", false},
    DropCauseInfo{DropCause::kTxTooShort, "tx_frame_too_short",
                  "The frame is shorter than an Ethernet header.", false},
    DropCauseInfo{DropCause::kTxTooManySegments, "tx_too_many_segments",
                  "The packet is in more pieces than the device can send.",
                  false},
    DropCauseInfo{DropCause::kTxError, "tx_error",
                  "The device took the packet and failed to send it.", false},
};

inline constexpr size_t kNumDropCauses = kDropCauses.size();

constexpr size_t Index(DropCause cause) { return static_cast<size_t>(cause); }

// The list is in the order of the enumeration.
static_assert([] {
  for (size_t i = 0; i < kNumDropCauses; i++) {
    if (Index(kDropCauses[i].cause) != i) {
      return false;
    }
  }
  return Index(DropCause::kTxError) + 1 == kNumDropCauses;
}());

constexpr const DropCauseInfo& Info(DropCause cause) {
  return kDropCauses[Index(cause)];
}

}  // namespace bess
