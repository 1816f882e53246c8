// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "gate.h"
#include "pktbatch.h"

class Task {
 public:
  bess::PacketBatch* AllocPacketBatch();
  bess::PacketBatch* dead_batch();
  void AddToRun(bess::IGate* igate, bess::PacketBatch* batch);

  int taken = 0;

 private:
  bess::PacketBatch batches_[64];
};

struct Context {
  uint64_t current_tsc;
  uint64_t current_ns;
  int wid;
  Task* task;
  uint64_t silent_drops;
  bess::gate_idx_t current_igate;
};
