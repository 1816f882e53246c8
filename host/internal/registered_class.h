// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string>

#include "module.h"

namespace bess::internal {

// Registers class M of the host's own as long as it lives. M brings its gate
// counts kNumIGates and kNumOGates, its commands cmds and its Init.
template <typename M>
class RegisteredClass {
 public:
  RegisteredClass(const std::string& name, const std::string& name_template,
                  const std::string& help)
      : name_(name) {
    ModuleBuilder::RegisterModuleClass(
        [] { return new M(); }, name, name_template, help, M::kNumIGates,
        M::kNumOGates, M::cmds, MODULE_INIT_FUNC(&M::Init));
  }
  ~RegisteredClass() { ModuleBuilder::DeregisterModuleClass(name_); }
  RegisteredClass(const RegisteredClass&) = delete;
  RegisteredClass& operator=(const RegisteredClass&) = delete;

 private:
  std::string name_;
};

}  // namespace bess::internal
