// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <glog/logging.h>

#include <cstddef>
#include <cstdint>

#include "gate.h"
#include "internal/lazy_array.h"
#include "pktbatch.h"

class Module;
class Task;

// What one call of a module knows about its surroundings. One a worker.
struct Context {
  uint64_t current_tsc = 0;   // processor cycles at the start of the task run
  uint64_t current_ns = 0;    // the same in nanoseconds
  int wid = 0;                // index of the worker
  Task* task = nullptr;       // the task being run
  uint64_t silent_drops = 0;  // packets that modules dropped and tasks freed
  gate_idx_t current_igate = 0;  // gate on which the batch at hand entered
};

// What one RunTask produced.
struct task_result {
  bool block;  // there was nothing to do; the worker may sleep
  uint32_t packets;
  uint64_t bits;
};

// A unit of scheduling: a module's RunTask and everything downstream of it. One
// run calls RunTask once, then hands the packets that it emitted through the
// graph until none is on its way.
//
// Memory of a run comes from the task, never from a heap:
//  - 1024 batches for modules (AllocPacketBatch);
//  - batches for what waits in output gates, and the queue of batches on their
//    way. Both are large and touched only as far as a run needs them. When a
//    run exceeds them, which a loop in the graph can do, packets are dropped
//    and counted.
// All of it is rewound when a run starts.
//
// Used by one thread at a time, and on cache lines of its own.
class alignas(64) Task {
 public:
  static constexpr int kPacketBatches = 1024;
  static constexpr int kGateBatches = 1 << 16;
  static constexpr int kQueueLength = 1 << 17;

  Task(Module* module, void* arg);
  // Frees the packets that are still on their way.
  ~Task();
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;

  Module* module() const { return module_; }
  void* arg() const { return arg_; }

  // The worker that the task is attached to, or -1.
  int wid() const { return wid_; }
  void set_wid(int wid) { wid_ = wid; }

  // A cleared batch that is the caller's until the end of the task run. More
  // than 1024 in one run are fatal.
  bess::PacketBatch* AllocPacketBatch() {
    static_assert(kPacketBatches == 1024);
    CHECK(pbatch_idx_ < 1024);
    bess::PacketBatch* batch = &pbatch_[pbatch_idx_++];
    batch->clear();
    return batch;
  }

  // Packets dropped in this run and not freed yet.
  bess::PacketBatch* dead_batch() { return &dead_batch_; }

  // Queues `batch` for the module behind `igate`, which then owns its packets.
  // The batch itself must last until the end of the task run.
  void AddToRun(bess::IGate* igate, bess::PacketBatch* batch);

  // One complete run: StartRun, RunTask, RunPending. The context's `wid` says
  // which worker this thread is; see inline_worker.h for threads that are none.
  task_result RunOnce(Context* ctx);

  // Rewinds the task's memory, after carrying what was emitted outside of a run
  // to its end, and sets the context's task and clock.
  void StartRun(Context* ctx);

  // Carries what is queued or waits in gates to its end, and frees the dead
  // batch.
  void RunPending(Context* ctx);

  // Hands on what waits in gates: queues their batches, in the order in which
  // the gates were first used.
  void HandOnGates();

  // Frees every packet that is queued, waits in a gate or is dead. Answers how
  // many there were.
  uint64_t FreePending();

  // Packets lost because a run needed more batches or a longer queue than the
  // task has.
  uint64_t overflow_drops() const { return overflow_drops_; }

  // A batch to collect packets in for `slot`, after handing on the full one
  // that it had. Null when the task has none left.
  bess::PacketBatch* StartGateBatch(bess::OGate::Pending* slot);

  // Hands on what `slot` has collected, if anything.
  void FlushGate(bess::OGate::Pending* slot);

  // Takes `slot`, which is in this task's list, off it and frees what it holds.
  void ForgetGate(bess::OGate::Pending* slot);

  // The packet just dropped had to go for want of a batch.
  void CountOverflow(uint64_t packets) { overflow_drops_ += packets; }

 private:
  struct Queued {
    bess::IGate* igate;
    bess::PacketBatch* batch;
  };

  void Rewind();
  bool pending() const {
    return first_gate_ != nullptr || queue_head_ != queue_tail_;
  }

  Module* module_;
  void* arg_;
  int wid_ = -1;
  double ns_per_cycle_;

  int pbatch_idx_ = 0;
  int gate_batch_idx_ = 0;
  int queue_head_ = 0;
  int queue_tail_ = 0;
  bess::OGate::Pending* first_gate_ = nullptr;
  bess::OGate::Pending* last_gate_ = nullptr;
  uint64_t overflow_drops_ = 0;

  bess::PacketBatch dead_batch_;
  bess::PacketBatch task_batch_;  // what RunTask is handed

  bess::internal::LazyArray<bess::PacketBatch> pbatch_;
  bess::internal::LazyArray<bess::PacketBatch> gate_batch_;
  bess::internal::LazyArray<Queued> queue_;
};
