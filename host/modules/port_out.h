// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <rte_spinlock.h>

#include <array>
#include <memory>
#include <optional>
#include <string>

#include "module.h"
#include "pb/port_msg.pb.h"
#include "ports/port.h"

// Sends what enters it from a port (ports/port.h). What the device does not
// take, also when asked again a few times, is dropped; every drop is counted
// under its cause at the port. Class "PortOut": one instance a port.
//
// Any number of workers may run it. Each has a transmit queue of its own where
// the port has enough of them; otherwise workers share queues and take turns.
class PortOut final : public Module {
 public:
  static constexpr gate_idx_t kNumIGates = 1;
  static constexpr gate_idx_t kNumOGates = 0;
  static const Commands cmds;

  // How often the device is asked again for what it did not take.
  static constexpr int kRetries = 8;

  PortOut();

  // Fails with ENODEV when there is no such port, with EBUSY when another
  // instance sends from it.
  CommandResponse Init(const bess::pb::PortOutArg& arg);
  void DeInit() override;
  void ProcessBatch(Context* ctx, bess::PacketBatch* batch) override;

  // Deals the queues out to the workers that will run.
  int OnEvent(bess::Event event) override;
  std::string GetDesc() const override;

 private:
  // The way out of one worker.
  struct Lane {
    uint16_t queue = 0;
    bool shared = true;  // with another worker
  };

  void DealQueues();

  // Why the packet cannot be sent, if so. May put its segments together.
  std::optional<bess::DropCause> Unfit(bess::Packet* pkt, bool up) const;

  int DropUnfit(Context* ctx, bess::Packet** pkts, int cnt, bool up,
                bess::PortCounters* counters);

  uint16_t Burst(const Lane& lane, bess::Packet** pkts, uint16_t count);

  bess::Port* port_ = nullptr;
  std::array<Lane, Worker::kMaxWorkers> lanes_;
  std::unique_ptr<rte_spinlock_t[]> queue_locks_;
};
