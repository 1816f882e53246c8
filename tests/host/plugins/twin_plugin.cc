// SPDX-License-Identifier: BSD-3-Clause
// Wants the name that good_plugin has.
#include "module.h"

namespace {

class Twin final : public Module {};

class TwinClass {
 public:
  TwinClass() {
    ModuleBuilder::RegisterModuleClass([] { return new Twin(); }, "Good",
                                       "twin", "the other one", 1, 1, {},
                                       MODULE_INIT_FUNC(&Twin::Init));
  }
  ~TwinClass() { ModuleBuilder::DeregisterModuleClass("Good"); }
} twin_class;

}  // namespace
