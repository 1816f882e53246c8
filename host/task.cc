// SPDX-License-Identifier: BSD-3-Clause
#include "task.h"

#include <rte_cycles.h>

#include "module.h"

using bess::IGate;
using bess::OGate;
using bess::Packet;
using bess::PacketBatch;

Task::Task(Module* module, void* arg)
    : module_(module),
      arg_(arg),
      ns_per_cycle_(1e9 / static_cast<double>(rte_get_tsc_hz())),
      pbatch_(kPacketBatches),
      gate_batch_(kGateBatches),
      queue_(kQueueLength) {
  dead_batch_.clear();
}

Task::~Task() { FreePending(); }

void Task::AddToRun(IGate* igate, PacketBatch* batch) {
  if (queue_tail_ == kQueueLength) [[unlikely]] {
    overflow_drops_ += batch->cnt();
    Packet::Free(batch);
    batch->clear();
    return;
  }
  queue_[queue_tail_++] = {igate, batch};
}

PacketBatch* Task::StartGateBatch(OGate::Pending* slot) {
  if (slot->task == nullptr) {
    slot->task = this;
    slot->next = nullptr;
    (last_gate_ != nullptr ? last_gate_->next : first_gate_) = slot;
    last_gate_ = slot;
  } else if (slot->task != this) [[unlikely]] {
    // Another task of this worker emitted here outside of a run.
    return slot->task->StartGateBatch(slot);
  }
  FlushGate(slot);
  if (gate_batch_idx_ == kGateBatches) [[unlikely]] {
    return nullptr;
  }
  slot->batch = &gate_batch_[gate_batch_idx_++];
  slot->batch->clear();
  return slot->batch;
}

void Task::FlushGate(OGate::Pending* slot) {
  if (slot->batch != nullptr) {
    slot->Count(slot->batch->cnt());
    slot->task->AddToRun(slot->igate, slot->batch);
    slot->batch = nullptr;
  }
}

void Task::HandOnGates() {
  for (OGate::Pending* slot = first_gate_; slot != nullptr;) {
    FlushGate(slot);
    slot->task = nullptr;
    slot = slot->next;
  }
  first_gate_ = nullptr;
  last_gate_ = nullptr;
}

void Task::ForgetGate(OGate::Pending* slot) {
  if (slot->batch != nullptr) {
    Packet::Free(slot->batch);
    slot->batch = nullptr;
  }
  OGate::Pending* before = nullptr;
  for (OGate::Pending* s = first_gate_; s != slot; s = s->next) {
    before = s;
  }
  (before != nullptr ? before->next : first_gate_) = slot->next;
  if (last_gate_ == slot) {
    last_gate_ = before;
  }
  slot->task = nullptr;
}

uint64_t Task::FreePending() {
  uint64_t freed = 0;
  HandOnGates();
  while (queue_head_ < queue_tail_) {
    PacketBatch* batch = queue_[queue_head_++].batch;
    freed += batch->cnt();
    Packet::Free(batch);
    batch->clear();
  }
  freed += dead_batch_.cnt();
  Packet::Free(&dead_batch_);
  dead_batch_.clear();
  Rewind();
  return freed;
}

void Task::Rewind() {
  pbatch_idx_ = 0;
  gate_batch_idx_ = 0;
  queue_head_ = 0;
  queue_tail_ = 0;
}

void Task::RunPending(Context* ctx) {
  ctx->task = this;
  HandOnGates();
  while (queue_head_ < queue_tail_) {
    const Queued next = queue_[queue_head_++];
    ctx->current_igate = next.igate->gate_idx();
    Module* module = next.igate->module();
    module->ProcessBatch(ctx, next.batch);
    module->ProcessOGates(ctx);
  }
  ctx->silent_drops += dead_batch_.cnt();
  Packet::Free(&dead_batch_);
  dead_batch_.clear();
}

void Task::StartRun(Context* ctx) {
  if (pending()) [[unlikely]] {
    RunPending(ctx);
  }
  Rewind();
  ctx->task = this;
  ctx->current_tsc = rte_rdtsc();
  ctx->current_ns = static_cast<uint64_t>(
      static_cast<double>(ctx->current_tsc) * ns_per_cycle_);
  ctx->current_igate = 0;
}

task_result Task::RunOnce(Context* ctx) {
  StartRun(ctx);
  task_batch_.clear();
  const task_result result = module_->RunTask(ctx, &task_batch_, arg_);
  RunPending(ctx);
  return result;
}
