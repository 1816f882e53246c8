// SPDX-License-Identifier: BSD-3-Clause
#include "plugin.h"

#include <dlfcn.h>
#include <urcu-qsbr.h>

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "control.h"
#include "internal/plugin_scope.h"
#include "module.h"

namespace bess {
namespace {

using internal::PluginScope;

struct Plugin {
  std::string path;
  void* handle;
};

// Used on the command thread. Never destroyed: plug-ins outlive it.
std::vector<Plugin>& Plugins() {
  static auto* plugins = new std::vector<Plugin>;
  return *plugins;
}

// One name for each file, however it is written. A name without a slash is left
// to the loader's search path.
std::string Canonical(const std::string& path) {
  std::error_code error;
  const auto canonical = std::filesystem::canonical(path, error);
  return error || path.find('/') == std::string::npos ? path
                                                      : canonical.string();
}

std::vector<std::string> ClassesOf(const std::string& path) {
  std::vector<std::string> names;
  for (const auto& [name, builder] : ModuleBuilder::all_module_builders()) {
    if (builder.owner() == path) {
      names.push_back(name);
    }
  }
  return names;
}

std::string Join(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) {
    text += (text.empty() ? "" : ", ") + word;
  }
  return text;
}

std::vector<std::string> InstancesOf(const std::string& path) {
  std::vector<std::string> names;
  for (const auto& [class_name, builder] :
       ModuleBuilder::all_module_builders()) {
    if (builder.owner() == path) {
      for (const Module* module : builder.instances()) {
        names.push_back(module->name());
      }
    }
  }
  return names;
}

std::string Load(const std::string& path) {
  const auto same = [&](const Plugin& plugin) { return plugin.path == path; };
  if (std::any_of(Plugins().begin(), Plugins().end(), same)) {
    return path + ": is loaded already";
  }
  PluginScope scope(path);
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    return dlerror();
  }
  if (!scope.refused().empty()) {
    dlclose(handle);
    return path + ": module class " + Join(scope.refused()) +
           " is registered already";
  }
  if (ClassesOf(path).empty()) {
    dlclose(handle);
    return path + ": registers no module class";
  }
  Plugins().push_back({path, handle});
  return "";
}

std::string Unload(const std::string& path) {
  const auto it =
      std::find_if(Plugins().begin(), Plugins().end(),
                   [&](const Plugin& plugin) { return plugin.path == path; });
  if (it == Plugins().end()) {
    return path + ": is not loaded";
  }
  if (const auto names = InstancesOf(path); !names.empty()) {
    return path + ": is in use by module " + Join(names);
  }
  // Callbacks that are waiting for a grace period are code of the plug-in's.
  rcu_barrier();
  const PluginScope scope(path);
  dlclose(it->handle);
  if (!ClassesOf(path).empty()) {
    // Something in it keeps the loader from removing it; keep it as it is.
    it->handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NOLOAD);
    return path + ": cannot be unloaded: the library is marked to stay";
  }
  Plugins().erase(it);
  return "";
}

}  // namespace

std::string LoadPlugin(const std::string& path) {
  std::string error;
  ControlThread::Instance().Run([&] { error = Load(Canonical(path)); });
  return error;
}

std::string UnloadPlugin(const std::string& path) {
  std::string error;
  ControlThread::Instance().Run([&] { error = Unload(Canonical(path)); });
  return error;
}

std::vector<PluginInfo> ListPlugins() {
  std::vector<PluginInfo> list;
  ControlThread::Instance().Run([&] {
    for (const Plugin& plugin : Plugins()) {
      list.push_back({plugin.path, ClassesOf(plugin.path)});
    }
  });
  return list;
}

}  // namespace bess
