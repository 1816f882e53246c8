// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string>
#include <vector>

namespace bess {

// Plug-ins: shared libraries whose static initialisers register module classes.
// Both functions run on the command thread, may be called from any thread but a
// worker, and answer an error text for a person, empty on success.

// Loads the library at `path`. Refused when it is loaded already, and when it
// registers a class under a name that is taken.
std::string LoadPlugin(const std::string& path);

// Unloads it, after everything that its code has deferred behind a grace period
// is done. Refused while instances of its classes exist.
std::string UnloadPlugin(const std::string& path);

struct PluginInfo {
  std::string path;
  std::vector<std::string> classes;
};

// The loaded plug-ins in the order of loading.
std::vector<PluginInfo> ListPlugins();

}  // namespace bess
