// SPDX-License-Identifier: BSD-3-Clause
#include "graph.h"

#include <algorithm>
#include <cerrno>
#include <exception>

#include "control.h"
#include "internal/worker_pauser.h"

namespace bess {
namespace {

using internal::WorkerPauser;

// In the order of their making; used on the command thread.
std::vector<Module*>& Instances() {
  static auto* instances = new std::vector<Module*>;
  return *instances;
}

Module* Find(const std::string& name) {
  const auto it = std::find_if(
      Instances().begin(), Instances().end(),
      [&](const Module* module) { return module->name() == name; });
  return it != Instances().end() ? *it : nullptr;
}

// What `fn` answers, or the failure that stands for what it throws.
template <typename F>
CommandResponse Guarded(F fn) {
  try {
    return fn();
  } catch (const std::exception& error) {
    return CommandFailure(ENOTRECOVERABLE, "%s", error.what());
  } catch (...) {
    return CommandFailure(ENOTRECOVERABLE, "unknown exception");
  }
}

template <typename F>
CommandResponse OnControlThread(F fn) {
  CommandResponse response;
  ControlThread::Instance().Run([&] { response = Guarded(fn); });
  return response;
}

CommandResponse NoSuchModule(const std::string& name) {
  return CommandFailure(ENOENT, "there is no module '%s'", name.c_str());
}

std::string FreeName(const std::string& name_template) {
  for (int number = 0;; number++) {
    std::string name = name_template + std::to_string(number);
    if (Find(name) == nullptr) {
      return name;
    }
  }
}

CommandResponse Create(const std::string& class_name, std::string name,
                       const google::protobuf::Any& arg, Module** created) {
  const auto& builders = ModuleBuilder::all_module_builders();
  const auto it = builders.find(class_name);
  if (it == builders.end()) {
    return CommandFailure(ENOENT, "there is no module class '%s'",
                          class_name.c_str());
  }
  const ModuleBuilder& builder = it->second;
  if (name.empty()) {
    name = FreeName(builder.name_template().empty() ? class_name
                                                    : builder.name_template());
  } else if (Find(name) != nullptr) {
    return CommandFailure(EEXIST, "there is a module '%s' already",
                          name.c_str());
  }
  Module* module = builder.CreateModule(name);
  if (module == nullptr) {
    return CommandFailure(ENOMEM, "cannot make a module of class '%s'",
                          class_name.c_str());
  }
  CommandResponse response =
      Guarded([&] { return builder.RunInit(module, arg); });
  if (response.error().code() != 0) {
    delete module;
    return response;
  }
  Instances().push_back(module);
  *created = module;
  return response;
}

CommandResponse Destroy(Module* module) {
  {
    const WorkerPauser pauser;
    Worker::DetachTasks(module);
    module->DisconnectAll();
  }
  std::erase(Instances(), module);
  CommandResponse response = Guarded([&] {
    module->DeInit();
    return CommandSuccess();
  });
  delete module;
  return response;
}

CommandResponse Connect(Module* from, gate_idx_t ogate, Module* to,
                        gate_idx_t igate) {
  WorkerPauser pauser;
  switch (from->ConnectGate(ogate, to, igate)) {
    case 0:
      break;
    case -EBUSY:
      return CommandFailure(EBUSY, "output gate %u of module '%s' is linked",
                            ogate, from->name().c_str());
    default:
      return CommandFailure(
          EINVAL,
          "'%s' has output gates below %u and '%s' input gates below %u: "
          "cannot link %u to %u",
          from->name().c_str(), from->module_builder()->NumOGates(),
          to->name().c_str(), to->module_builder()->NumIGates(), ogate, igate);
  }
  if (const std::string error = pauser.Resume(); !error.empty()) {
    from->DisconnectGate(ogate);
    return CommandFailure(EINVAL, "%s", error.c_str());
  }
  return CommandSuccess();
}

}  // namespace

CreateResult CreateModule(const std::string& class_name,
                          const std::string& name,
                          const google::protobuf::Any& arg) {
  CreateResult result{.response = {}, .module = nullptr};
  result.response = OnControlThread(
      [&] { return Create(class_name, name, arg, &result.module); });
  return result;
}

CommandResponse DestroyModule(const std::string& name) {
  return OnControlThread([&] {
    Module* module = Find(name);
    return module != nullptr ? Destroy(module) : NoSuchModule(name);
  });
}

CommandResponse DestroyAllModules() {
  return OnControlThread([] {
    CommandResponse first_failure;
    while (!Instances().empty()) {
      CommandResponse response = Destroy(Instances().back());
      if (first_failure.error().code() == 0) {
        first_failure = std::move(response);
      }
    }
    return first_failure;
  });
}

CommandResponse ConnectModules(const std::string& from, gate_idx_t ogate,
                               const std::string& to, gate_idx_t igate) {
  return OnControlThread([&] {
    Module* source = Find(from);
    Module* target = Find(to);
    if (source == nullptr || target == nullptr) {
      return NoSuchModule(source == nullptr ? from : to);
    }
    return Connect(source, ogate, target, igate);
  });
}

CommandResponse DisconnectModules(const std::string& from, gate_idx_t ogate) {
  return OnControlThread([&] {
    Module* source = Find(from);
    if (source == nullptr) {
      return NoSuchModule(from);
    }
    const WorkerPauser pauser;
    if (source->DisconnectGate(ogate) != 0) {
      return CommandFailure(ENOENT, "output gate %u of module '%s' has no link",
                            ogate, from.c_str());
    }
    return CommandSuccess();
  });
}

CommandResponse RunModuleCommand(const std::string& name,
                                 const std::string& cmd,
                                 const google::protobuf::Any& arg) {
  return OnControlThread([&] {
    Module* module = Find(name);
    return module != nullptr
               ? module->module_builder()->RunCommand(module, cmd, arg)
               : NoSuchModule(name);
  });
}

Module* FindModule(const std::string& name) {
  Module* module = nullptr;
  ControlThread::Instance().Run([&] { module = Find(name); });
  return module;
}

std::vector<Module*> ListModules() {
  std::vector<Module*> modules;
  ControlThread::Instance().Run([&] { modules = Instances(); });
  return modules;
}

}  // namespace bess
