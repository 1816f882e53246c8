// SPDX-License-Identifier: BSD-3-Clause
#include "module.h"

#include <algorithm>

using bess::IGate;
using bess::OGate;
using bess::Packet;
using bess::PacketBatch;

Module::~Module() {
  DisconnectAll();
  tasks_.clear();
  if (builder_ != nullptr) {
    builder_->Forget(this);
  }
}

task_result Module::RunTask(Context*, PacketBatch*, void*) {
  return {.block = true, .packets = 0, .bits = 0};
}

void Module::ProcessBatch(Context* ctx, PacketBatch* batch) {
  for (int i = 0; i < batch->cnt(); i++) {
    DropPacket(ctx, batch->pkts()[i]);
  }
}

void Module::RunChooseModule(Context* ctx, gate_idx_t ogate,
                             PacketBatch* batch) {
  if (ogate >= ogates_.size() || ogates_[ogate] == nullptr) [[unlikely]] {
    for (int i = 0; i < batch->cnt(); i++) {
      DropPacket(ctx, batch->pkts()[i]);
    }
    batch->clear();
    return;
  }
  if (batch->empty()) {
    return;
  }
  const int wid = ctx->wid;
  CHECK(wid < MAX_WORKERS && wid >= 0);
  OGate::Pending* slot = ogates_[ogate]->pending(wid);
  ctx->task->FlushGate(slot);
  slot->Count(batch->cnt());
  ctx->task->AddToRun(ogates_[ogate]->igate(), batch);
}

void Module::DropOverflow(Context* ctx, Packet* pkt) {
  ctx->task->CountOverflow(1);
  DropPacket(ctx, pkt);
}

task_id_t Module::RegisterTask(void* arg) {
  if (tasks_.size() >= INVALID_TASK_ID) {
    return INVALID_TASK_ID;
  }
  is_task_ = true;
  tasks_.push_back(std::make_unique<Task>(this, arg));
  return static_cast<task_id_t>(tasks_.size() - 1);
}

std::array<uint64_t, Worker::kMaxWorkers> Module::deadends() const {
  std::array<uint64_t, Worker::kMaxWorkers> counts;
  for (int wid = 0; wid < Worker::kMaxWorkers; wid++) {
    counts[wid] = deadends(wid);
  }
  return counts;
}

void Module::AddActiveWorker(int wid, const Task* task) {
  if (std::find(visited_tasks_.begin(), visited_tasks_.end(), task) !=
      visited_tasks_.end()) {
    return;  // a loop, or two ways to the same module
  }
  visited_tasks_.push_back(task);
  workers_[wid].active = true;
  if (!propagate_workers_ && task->module() != this) {
    return;
  }
  for (OGate* ogate : ogates_) {
    if (ogate != nullptr) {
      ogate->next()->AddActiveWorker(wid, task);
    }
  }
}

void Module::ResetActiveWorkers() {
  visited_tasks_.clear();
  for (PerWorker& worker : workers_) {
    worker.active = false;
  }
}

int Module::num_active_workers() const {
  return static_cast<int>(
      std::count_if(std::begin(workers_), std::end(workers_),
                    [](const PerWorker& worker) { return worker.active; }));
}

bool Module::HasRunningWorker() const {
  for (int wid = 0; wid < Worker::kMaxWorkers; wid++) {
    if (workers_[wid].active && Worker::IsRunning(wid)) {
      return true;
    }
  }
  return false;
}

CheckConstraintResult Module::CheckModuleConstraints() const {
  const int active = num_active_workers();
  if (active >= min_allowed_workers_ && active <= max_allowed_workers_) {
    return CHECK_OK;
  }
  return active > max_allowed_workers_ ? CHECK_FATAL_ERROR
                                       : CHECK_NONFATAL_ERROR;
}

int Module::ConnectGate(gate_idx_t ogate, Module* next, gate_idx_t igate) {
  if (builder_ == nullptr || next->builder_ == nullptr ||
      ogate >= builder_->NumOGates() || igate >= next->builder_->NumIGates()) {
    return -EINVAL;
  }
  if (ogate < ogates_.size() && ogates_[ogate] != nullptr) {
    return -EBUSY;
  }
  if (igate >= next->igates_.size()) {
    next->igates_.resize(igate + 1);
  }
  if (next->igates_[igate] == nullptr) {
    next->igates_[igate] = new IGate(next, igate);
  }
  if (ogate >= ogates_.size()) {
    ogates_.resize(ogate + 1);
  }
  ogates_[ogate] = new OGate(this, ogate, next->igates_[igate]);
  next->igates_[igate]->PushOgate(ogates_[ogate]);
  return 0;
}

int Module::DisconnectGate(gate_idx_t ogate) {
  if (ogate >= ogates_.size() || ogates_[ogate] == nullptr) {
    return -ENOENT;
  }
  OGate* gate = ogates_[ogate];
  IGate* igate = gate->igate();
  ogates_[ogate] = nullptr;
  igate->RemoveOgate(gate);
  delete gate;
  if (igate->ogates_upstream().empty()) {
    igate->module()->igates_[igate->gate_idx()] = nullptr;
    delete igate;
  }
  return 0;
}

void Module::DisconnectAll() {
  for (size_t ogate = 0; ogate < ogates_.size(); ogate++) {
    DisconnectGate(static_cast<gate_idx_t>(ogate));
  }
  for (size_t i = 0; i < igates_.size(); i++) {
    while (igates_[i] != nullptr) {
      const OGate* upstream = igates_[i]->ogates_upstream().front();
      upstream->module()->DisconnectGate(upstream->gate_idx());
    }
  }
}
