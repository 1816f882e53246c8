// SPDX-License-Identifier: BSD-3-Clause
#include "internal/plugin_scope.h"

namespace bess::internal {
namespace {

PluginScope* scope = nullptr;

}  // namespace

PluginScope::PluginScope(const std::string& path) : path_(path) {
  scope = this;
}

PluginScope::~PluginScope() { scope = nullptr; }

bool PluginScope::active() { return scope != nullptr; }

std::string PluginScope::current() {
  return scope != nullptr ? scope->path_ : "";
}

void PluginScope::NoteRefused(const std::string& class_name) {
  if (scope != nullptr) {
    scope->refused_.push_back(class_name);
  }
}

}  // namespace bess::internal
