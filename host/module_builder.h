// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <google/protobuf/arena.h>

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "commands.h"
#include "gate.h"
#include "message.h"

class Module;

using module_cmd_func_t =
    std::function<CommandResponse(Module*, const google::protobuf::Any&)>;
using module_init_func_t = module_cmd_func_t;

using Command = GenericCommand<module_cmd_func_t>;
using Commands = std::vector<Command>;

// A module class as the host knows it: how to make an instance and which
// commands it takes. Classes are registered while their library is loaded,
// before main or on the command thread; everything else runs on the command
// thread.
class ModuleBuilder {
 public:
  // False, and nothing registered, when there is a class of that name.
  static bool RegisterModuleClass(std::function<Module*()> generator,
                                  const std::string& class_name,
                                  const std::string& name_template,
                                  const std::string& help_text,
                                  gate_idx_t igates, gate_idx_t ogates,
                                  const Commands& cmds,
                                  module_init_func_t init);

  // False, and the class stays, while it has instances; false when there is
  // none of that name.
  static bool DeregisterModuleClass(const std::string& class_name);

  // All classes by name.
  static const std::map<std::string, ModuleBuilder>& all_module_builders();

  ModuleBuilder(std::function<Module*()> generator, std::string class_name,
                std::string name_template, std::string help_text,
                gate_idx_t igates, gate_idx_t ogates, Commands cmds,
                module_init_func_t init);

  const std::string& class_name() const { return class_name_; }
  const std::string& name_template() const { return name_template_; }
  const std::string& help_text() const { return help_text_; }
  gate_idx_t NumIGates() const { return igates_; }
  gate_idx_t NumOGates() const { return ogates_; }
  const Commands& cmds() const { return cmds_; }

  // The path of the plug-in that registered it; empty when none did.
  const std::string& owner() const { return owner_; }

  // A new instance that is not initialised yet. The caller owns it and deletes
  // it through Module's destructor.
  Module* CreateModule(const std::string& name) const;

  // Runs the class's init command.
  CommandResponse RunInit(Module* module,
                          const google::protobuf::Any& arg) const;

  // Runs the command named `cmd`. Fails with ENOTSUP when the class has no such
  // command, with EBUSY when it is not thread-safe and a worker runs `module`.
  // Whatever a handler throws is the caller's to catch.
  CommandResponse RunCommand(Module* module, const std::string& cmd,
                             const google::protobuf::Any& arg) const;

  // The class's living instances, in the order in which they were made.
  const std::vector<Module*>& instances() const { return instances_; }

 private:
  friend class Module;

  void Forget(Module* module) const;

  std::function<Module*()> generator_;
  std::string class_name_;
  std::string name_template_;
  std::string help_text_;
  gate_idx_t igates_;
  gate_idx_t ogates_;
  Commands cmds_;
  module_init_func_t init_;
  std::string owner_;
  mutable std::vector<Module*> instances_;
};

namespace bess::internal {

// The handler that calls a module class's own function: makes an argument of
// its type, unpacks into it, calls. An argument of another type or a broken one
// arrives empty: never the half of it that could be read. Catches nothing. The
// parts of an argument, some per flow, are made in an arena, side by side, and
// go all at once.
template <typename M, typename Arg>
module_cmd_func_t AdaptCommand(CommandResponse (M::*fn)(const Arg&)) {
  return [fn](Module* module, const google::protobuf::Any& any) {
    google::protobuf::ArenaOptions options;
    options.max_block_size = size_t{64} << 10;
    google::protobuf::Arena arena(options);
    Arg& arg = *google::protobuf::Arena::CreateMessage<Arg>(&arena);
    if (!any.UnpackTo(&arg)) {
      arg.Clear();
    }
    return (static_cast<M*>(module)->*fn)(arg);
  };
}

}  // namespace bess::internal

#define MODULE_CMD_FUNC(fn) (::bess::internal::AdaptCommand(fn))
#define MODULE_INIT_FUNC(fn) (::bess::internal::AdaptCommand(fn))
