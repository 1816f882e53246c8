// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "ports/drop_cause.h"

namespace bess {

// What a port has done since it was opened. The sums close:
//   rx_received = rx_packets + the drops of all rx causes
//   tx_entered  = tx_packets + the drops of all tx causes
// exactly while no worker runs the port, and off by what is under way
// otherwise.
struct PortStats {
  uint64_t rx_received = 0;  // by the device, whatever became of them
  uint64_t rx_packets = 0;   // handed on
  uint64_t rx_bytes = 0;
  uint64_t tx_entered = 0;  // handed to the port
  uint64_t tx_packets = 0;  // taken by the device and not failed there
  uint64_t tx_bytes = 0;    // of the packets that the device took
  std::array<uint64_t, kNumDropCauses> drops = {};

  uint64_t drop(DropCause cause) const { return drops[Index(cause)]; }
};

// What one worker has done at one port. Written by that worker alone, read by
// anyone.
struct alignas(64) PortCounters {
  std::atomic<uint64_t> rx_packets = 0;
  std::atomic<uint64_t> rx_bytes = 0;
  std::atomic<uint64_t> tx_entered = 0;
  std::atomic<uint64_t> tx_packets = 0;
  std::atomic<uint64_t> tx_bytes = 0;
  std::array<std::atomic<uint64_t>, kNumDropCauses> drops = {};

  // There is one writer: no read-modify-write is needed.
  static void Add(std::atomic<uint64_t>& counter, uint64_t n) {
    counter.store(counter.load(std::memory_order_relaxed) + n,
                  std::memory_order_relaxed);
  }
  void Drop(DropCause cause, uint64_t n = 1) { Add(drops[Index(cause)], n); }
};

}  // namespace bess
