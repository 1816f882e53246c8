// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <glog/logging.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "event.h"
#include "gate.h"
#include "message.h"
#include "module_builder.h"
#include "packet.h"
#include "pktbatch.h"
#include "task.h"
#include "worker.h"

using task_id_t = uint16_t;
inline constexpr task_id_t INVALID_TASK_ID = UINT16_MAX;

// Whether a module can run with the workers it has been given.
enum CheckConstraintResult {
  CHECK_OK = 0,
  CHECK_NONFATAL_ERROR = 1,  // it can, but not as meant
  CHECK_FATAL_ERROR = 2,     // it cannot: workers are not started
};

// A node of the packet graph; base of every module class. Instances are made by
// their class's ModuleBuilder and live until the graph destroys them.
//
// Init, commands and DeInit run on the command thread; RunTask and ProcessBatch
// on workers, several at once when max_allowed_workers_ says so.
class alignas(64) Module {
 public:
  Module() = default;
  Module(const Module&) = delete;
  Module& operator=(const Module&) = delete;
  virtual ~Module();

  // The init command of a class that has none of its own.
  CommandResponse Init(const bess::pb::EmptyArg&) { return CommandSuccess(); }

  // Gives back what Init took. Called once before destruction, when no worker
  // runs the module any more; not called when Init failed.
  virtual void DeInit() {}

  // Work that no input causes, for modules with tasks: fills `batch`, which is
  // empty, and hands it on. `arg` is what the task was registered with.
  virtual task_result RunTask(Context* ctx, bess::PacketBatch* batch,
                              void* arg);

  // Takes the packets of `batch`, at most 32, that entered at
  // ctx->current_igate. The module owns them: each one is emitted, dropped or
  // freed.
  virtual void ProcessBatch(Context* ctx, bess::PacketBatch* batch);

  // Something happened in the host. Answers 0, or a negative errno value.
  virtual int OnEvent(bess::Event) { return -ENOTSUP; }

  // One line about the instance, for people.
  virtual std::string GetDesc() const { return ""; }

  // Notes that worker `wid` runs this module as part of `task`, and tells the
  // modules downstream, unless propagate_workers_ is false and the task is not
  // this module's own.
  virtual void AddActiveWorker(int wid, const Task* task);

  // Compares the number of workers with the allowed ones.
  virtual CheckConstraintResult CheckModuleConstraints() const;

  // Sends `pkt` out of gate `ogate`; without a link there it is dropped. The
  // packet is only queued: modules downstream run after this module's call has
  // returned.
  void EmitPacket(Context* ctx, bess::Packet* pkt, gate_idx_t ogate = 0);

  // Counts the packet as one that ended here, and frees it by and by.
  void DropPacket(Context* ctx, bess::Packet* pkt);

  // Hands the whole batch on, through gate 0 or `ogate`, behind what was
  // emitted there before. The batch must last until the end of the task run.
  void RunNextModule(Context* ctx, bess::PacketBatch* batch) {
    RunChooseModule(ctx, 0, batch);
  }
  void RunChooseModule(Context* ctx, gate_idx_t ogate,
                       bess::PacketBatch* batch);

  // Called by the host after RunTask or ProcessBatch: queues what they emitted.
  void ProcessOGates(Context* ctx) { ctx->task->HandOnGates(); }

  // Makes a task that calls RunTask with `arg`. For Init.
  task_id_t RegisterTask(void* arg);

  const std::string& name() const { return name_; }
  const ModuleBuilder* module_builder() const { return builder_; }

  // Gates by number; null where there is no link.
  const std::vector<bess::IGate*>& igates() const { return igates_; }
  const std::vector<bess::OGate*>& ogates() const { return ogates_; }

  // Packets that ended here, by worker.
  std::array<uint64_t, Worker::kMaxWorkers> deadends() const;
  uint64_t deadends(int wid) const {
    return workers_[wid].deadends.load(std::memory_order_relaxed);
  }

  bool is_task() const { return is_task_; }
  const std::vector<std::unique_ptr<Task>>& tasks() const { return tasks_; }

  int min_allowed_workers() const { return min_allowed_workers_; }
  int max_allowed_workers() const { return max_allowed_workers_; }

  // Workers that run this module, as far as AddActiveWorker was told.
  bool is_active_worker(int wid) const { return workers_[wid].active; }
  int num_active_workers() const;
  void ResetActiveWorkers();

  // True while one of them is not paused.
  bool HasRunningWorker() const;

  // Links gate `ogate` of this module to gate `igate` of `next`, and undoes it.
  // For the graph, while no worker runs either module. Answers 0 or a negative
  // errno value: -EINVAL for a gate the class does not have, -EBUSY for an
  // output gate that is linked, -ENOENT for one that is not.
  int ConnectGate(gate_idx_t ogate, Module* next, gate_idx_t igate);
  int DisconnectGate(gate_idx_t ogate);

  // Removes all links from and to this module.
  void DisconnectAll();

 protected:
  // How many workers may run the module at once.
  int min_allowed_workers_ = 1;
  int max_allowed_workers_ = 1;

  // The module has work of its own (set by RegisterTask).
  bool is_task_ = false;

  // Workers that run this module also run the ones downstream. False for a
  // module behind which other tasks take over, such as a queue.
  bool propagate_workers_ = true;

 private:
  friend class ModuleBuilder;

  // Written by one worker each.
  struct alignas(64) PerWorker {
    std::atomic<uint64_t> deadends = 0;
    bool active = false;  // written on the command thread, workers paused
  };
  static_assert(sizeof(PerWorker) == 64);

  void DropOverflow(Context* ctx, bess::Packet* pkt);

  std::string name_;
  const ModuleBuilder* builder_ = nullptr;
  std::vector<bess::IGate*> igates_;
  std::vector<bess::OGate*> ogates_;
  std::vector<std::unique_ptr<Task>> tasks_;
  std::vector<const Task*> visited_tasks_;
  PerWorker workers_[Worker::kMaxWorkers];
};

inline void Module::DropPacket(Context* ctx, bess::Packet* pkt) {
  const int wid = ctx->wid;
  CHECK(wid < MAX_WORKERS && wid >= 0);
  // Only this worker writes the count: no read-modify-write is needed.
  std::atomic<uint64_t>& deadends = workers_[wid].deadends;
  deadends.store(deadends.load(std::memory_order_relaxed) + 1,
                 std::memory_order_relaxed);
  bess::PacketBatch* dead = ctx->task->dead_batch();
  dead->add(pkt);
  if (dead->full()) [[unlikely]] {
    ctx->silent_drops += dead->cnt();
    bess::Packet::Free(dead);
    dead->clear();
  }
}

inline void Module::EmitPacket(Context* ctx, bess::Packet* pkt,
                               gate_idx_t ogate) {
  if (ogate >= ogates_.size() || ogates_[ogate] == nullptr) [[unlikely]] {
    DropPacket(ctx, pkt);
    return;
  }
  const int wid = ctx->wid;
  CHECK(wid < MAX_WORKERS && wid >= 0);
  bess::OGate::Pending* slot = ogates_[ogate]->pending(wid);
  bess::PacketBatch* batch = slot->batch;
  if (batch == nullptr || batch->full()) [[unlikely]] {
    batch = ctx->task->StartGateBatch(slot);
    if (batch == nullptr) [[unlikely]] {
      DropOverflow(ctx, pkt);
      return;
    }
  }
  batch->add(pkt);
}
