// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <rte_ring.h>

#include "module.h"

// Sends packets that another thread gives it out of gate 0, up to 32 a run.
// Class "Source", for tests and small programs.
class Source final : public Module {
 public:
  static constexpr gate_idx_t kNumIGates = 0;
  static constexpr gate_idx_t kNumOGates = 1;
  static constexpr unsigned kCapacity = 65536;  // packets that may wait

  static const Commands cmds;

  ~Source() override;

  CommandResponse Init(const bess::pb::EmptyArg&);
  void DeInit() override;
  task_result RunTask(Context* ctx, bess::PacketBatch* batch,
                      void* arg) override;

  // Gives the packet to the module. False, and the packet stays the caller's,
  // when kCapacity of them wait. Any thread.
  bool Push(bess::Packet* pkt);

  // Packets that wait.
  unsigned waiting() const;

 private:
  void FreeRing();

  rte_ring* ring_ = nullptr;
};
