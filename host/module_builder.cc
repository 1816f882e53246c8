// SPDX-License-Identifier: BSD-3-Clause
#include "module_builder.h"

#include <glog/logging.h>

#include <cerrno>
#include <utility>

#include "internal/plugin_scope.h"
#include "module.h"

namespace {

using bess::internal::PluginScope;

// Static initialisers of any library may register before this file's own have
// run, and deregister after them: the map is made on demand and never goes.
std::map<std::string, ModuleBuilder>& Builders() {
  static auto* builders = new std::map<std::string, ModuleBuilder>;
  return *builders;
}

}  // namespace

bool ModuleBuilder::RegisterModuleClass(std::function<Module*()> generator,
                                        const std::string& class_name,
                                        const std::string& name_template,
                                        const std::string& help_text,
                                        gate_idx_t igates, gate_idx_t ogates,
                                        const Commands& cmds,
                                        module_init_func_t init) {
  const auto [it, added] = Builders().try_emplace(
      class_name, std::move(generator), class_name, name_template, help_text,
      igates, ogates, cmds, std::move(init));
  if (!added) {
    LOG(ERROR) << "module class " << class_name << " is registered already";
    PluginScope::NoteRefused(class_name);
    return false;
  }
  it->second.owner_ = PluginScope::current();
  return true;
}

bool ModuleBuilder::DeregisterModuleClass(const std::string& class_name) {
  const auto it = Builders().find(class_name);
  if (it == Builders().end()) {
    return false;
  }
  // A plug-in whose registration was refused must not take away the class of
  // the one that came first.
  if (PluginScope::active() && it->second.owner_ != PluginScope::current()) {
    return false;
  }
  if (!it->second.instances_.empty()) {
    LOG(ERROR) << "module class " << class_name << " still has instances";
    return false;
  }
  Builders().erase(it);
  return true;
}

const std::map<std::string, ModuleBuilder>&
ModuleBuilder::all_module_builders() {
  return Builders();
}

ModuleBuilder::ModuleBuilder(std::function<Module*()> generator,
                             std::string class_name, std::string name_template,
                             std::string help_text, gate_idx_t igates,
                             gate_idx_t ogates, Commands cmds,
                             module_init_func_t init)
    : generator_(std::move(generator)),
      class_name_(std::move(class_name)),
      name_template_(std::move(name_template)),
      help_text_(std::move(help_text)),
      igates_(igates),
      ogates_(ogates),
      cmds_(std::move(cmds)),
      init_(std::move(init)) {}

Module* ModuleBuilder::CreateModule(const std::string& name) const {
  Module* module = generator_();
  module->name_ = name;
  module->builder_ = this;
  instances_.push_back(module);
  return module;
}

void ModuleBuilder::Forget(Module* module) const {
  std::erase(instances_, module);
}

CommandResponse ModuleBuilder::RunInit(Module* module,
                                       const google::protobuf::Any& arg) const {
  return init_(module, arg);
}

CommandResponse ModuleBuilder::RunCommand(
    Module* module, const std::string& cmd,
    const google::protobuf::Any& arg) const {
  for (const Command& command : cmds_) {
    if (command.cmd != cmd) {
      continue;
    }
    if (command.mt_safe != THREAD_SAFE && module->HasRunningWorker()) {
      return CommandFailure(EBUSY,
                            "command '%s' is not thread-safe and a worker runs "
                            "module '%s'",
                            cmd.c_str(), module->name().c_str());
    }
    return command.func(module, arg);
  }
  return CommandFailure(ENOTSUP, "module class '%s' has no command '%s'",
                        class_name_.c_str(), cmd.c_str());
}
