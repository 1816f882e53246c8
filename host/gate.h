// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <vector>

#include "pktbatch.h"
#include "worker.h"

class Module;
class Task;

namespace bess {

using gate_idx_t = uint16_t;

// A module has at most this many gates in each direction.
inline constexpr gate_idx_t MAX_GATES = 8192;

class OGate;

// One end of a link: gate number `gate_idx` of `module`.
class Gate {
 public:
  Gate(Module* module, gate_idx_t idx) : module_(module), gate_idx_(idx) {}
  Gate(const Gate&) = delete;
  Gate& operator=(const Gate&) = delete;

  Module* module() const { return module_; }
  gate_idx_t gate_idx() const { return gate_idx_; }

 private:
  Module* module_;
  gate_idx_t gate_idx_;
};

// Where packets enter a module. Any number of output gates may lead here.
class IGate : public Gate {
 public:
  using Gate::Gate;

  const std::vector<OGate*>& ogates_upstream() const { return upstream_; }
  void PushOgate(OGate* ogate) { upstream_.push_back(ogate); }
  void RemoveOgate(const OGate* ogate) { std::erase(upstream_, ogate); }

 private:
  std::vector<OGate*> upstream_;
};

// Where packets leave a module: leads to one input gate. It exists while it is
// connected. Each worker collects packets for the gate in a slot of its own.
class OGate : public Gate {
 public:
  // What one worker has collected for this gate and not handed on yet. A slot
  // with a task set is in that task's list of slots to hand on; its batch may
  // be missing all the same, when the task had none left.
  struct alignas(64) Pending {
    PacketBatch* batch = nullptr;
    Task* task = nullptr;
    Pending* next = nullptr;  // in the task's list
    IGate* igate = nullptr;
    std::atomic<uint64_t> packets = 0;  // handed on; only the worker writes

    void Count(int n) {
      packets.store(
          packets.load(std::memory_order_relaxed) + static_cast<uint64_t>(n),
          std::memory_order_relaxed);
    }
  };

  OGate(Module* module, gate_idx_t idx, IGate* igate)
      : Gate(module, idx), igate_(igate) {
    for (Pending& slot : pending_) {
      slot.igate = igate;
    }
  }
  // Frees the packets that still wait here.
  ~OGate();

  IGate* igate() const { return igate_; }
  Module* next() const { return igate_->module(); }

  Pending* pending(int wid) { return &pending_[wid]; }

  // Packets that have been handed on since the gate was linked, by all workers.
  // Counted by the batch, so that it costs a packet nothing.
  uint64_t packets() const {
    uint64_t sum = 0;
    for (const Pending& slot : pending_) {
      sum += slot.packets.load(std::memory_order_relaxed);
    }
    return sum;
  }

 private:
  IGate* igate_;
  Pending pending_[Worker::kMaxWorkers];
};

}  // namespace bess

using bess::gate_idx_t;
using bess::MAX_GATES;
