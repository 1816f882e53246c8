// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string>

#include "module.h"
#include "pb/port_msg.pb.h"
#include "ports/port.h"

// Receives packets from one queue of a port (ports/port.h) and sends them out
// of gate 0, up to 32 a task run. Each carries the port's number as its in-port
// and as its metadata; nothing else in its metadata is valid. Class "PortIn":
// one instance a queue, so that each queue can have a worker of its own.
class PortIn final : public Module {
 public:
  static constexpr gate_idx_t kNumIGates = 0;
  static constexpr gate_idx_t kNumOGates = 1;
  static const Commands cmds;

  // Fails with ENODEV when there is no such port, with EINVAL when it has no
  // such queue, with EBUSY when another instance has the queue.
  CommandResponse Init(const bess::pb::PortInArg& arg);
  void DeInit() override;
  task_result RunTask(Context* ctx, bess::PacketBatch* batch,
                      void* arg) override;
  std::string GetDesc() const override;

 private:
  uint64_t DropTooLong(Context* ctx, bess::PacketBatch* batch, uint32_t longest,
                       bess::PortCounters* counters);

  bess::Port* port_ = nullptr;
  uint16_t queue_ = 0;
};
