// SPDX-License-Identifier: BSD-3-Clause
// Calls what no library has.
#include "module.h"

extern "C" int nobody_has_this();

namespace {

class Unresolved final : public Module {
 public:
  std::string GetDesc() const override {
    return std::to_string(nobody_has_this());
  }
};

class UnresolvedClass {
 public:
  UnresolvedClass() {
    ModuleBuilder::RegisterModuleClass(
        [] { return new Unresolved(); }, "Unresolved", "unresolved",
        "cannot be linked", 0, 0, {}, MODULE_INIT_FUNC(&Unresolved::Init));
  }
  ~UnresolvedClass() { ModuleBuilder::DeregisterModuleClass("Unresolved"); }
} unresolved_class;

}  // namespace
