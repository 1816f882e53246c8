// SPDX-License-Identifier: BSD-3-Clause
//
// A host that has the interface of BESS and is none: what modules emit and drop
// it keeps, for a test to look at.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "commands.h"
#include "event.h"
#include "gate.h"
#include "message.h"
#include "packet.h"
#include "pktbatch.h"
#include "task.h"

class Module;

enum CheckConstraintResult { CHECK_OK };
struct task_result {};

using module_cmd_func_t = std::function<bess::pb::CommandResponse(
    Module*, const google::protobuf::Any&)>;
using module_init_func_t = module_cmd_func_t;
using Command = GenericCommand<module_cmd_func_t>;
using Commands = std::vector<Command>;

template <typename M, typename A>
module_cmd_func_t adapt(bess::pb::CommandResponse (M::*fn)(const A&)) {
  return [fn](Module* module, const google::protobuf::Any& any) {
    A arg;
    any.UnpackTo(&arg);
    return (static_cast<M*>(module)->*fn)(arg);
  };
}
#define MODULE_CMD_FUNC(fn) adapt(fn)
#define MODULE_INIT_FUNC(fn) adapt(fn)

// What a module class was registered with.
struct ModuleClass {
  std::function<Module*()> generator;
  std::string class_name;
  std::string name_template;
  std::string help_text;
  bess::gate_idx_t igates;
  bess::gate_idx_t ogates;
  Commands cmds;
  module_init_func_t init;
};

class ModuleBuilder {
 public:
  static std::vector<ModuleClass>& classes();

  static bool RegisterModuleClass(std::function<Module*()> generator,
                                  const std::string& class_name,
                                  const std::string& name_template,
                                  const std::string& help_text,
                                  bess::gate_idx_t igates,
                                  bess::gate_idx_t ogates, const Commands& cmds,
                                  module_init_func_t init);
  static bool DeregisterModuleClass(const std::string& class_name);
};

class alignas(64) Module {
 public:
  Module();
  virtual ~Module();

  bess::pb::CommandResponse Init(const bess::pb::EmptyArg& arg);
  virtual void DeInit();
  virtual task_result RunTask(Context* ctx, bess::PacketBatch* batch,
                              void* arg);
  virtual void ProcessBatch(Context* ctx, bess::PacketBatch* batch);
  virtual int OnEvent(bess::Event event);
  virtual std::string GetDesc() const;
  virtual void AddActiveWorker(int wid, const Task* task);
  virtual CheckConstraintResult CheckModuleConstraints() const;

  void EmitPacket(Context* ctx, bess::Packet* packet,
                  bess::gate_idx_t ogate = 0);
  void DropPacket(Context* ctx, bess::Packet* packet);

 protected:
  int min_allowed_workers_ = 1;
  int max_allowed_workers_ = 1;
  bool is_task_ = false;
  bool propagate_workers_ = true;
};

struct Emitted {
  bess::Packet* packet;
  bess::gate_idx_t ogate;
};
extern std::vector<Emitted> emitted;
extern std::vector<bess::Packet*> dropped;
