// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string>
#include <vector>

namespace bess::internal {

// While it lives, classes are registered and deregistered in the name of one
// plug-in: the static initialisers of a library run inside dlopen, with no way
// to be told. On one thread at a time, and not nested.
class PluginScope {
 public:
  explicit PluginScope(const std::string& path);
  ~PluginScope();
  PluginScope(const PluginScope&) = delete;
  PluginScope& operator=(const PluginScope&) = delete;

  static bool active();
  static std::string current();  // empty when there is none

  // A class that the plug-in could not register.
  static void NoteRefused(const std::string& class_name);
  const std::vector<std::string>& refused() const { return refused_; }

 private:
  std::string path_;
  std::vector<std::string> refused_;
};

}  // namespace bess::internal
