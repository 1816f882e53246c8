// SPDX-License-Identifier: BSD-3-Clause
// Is linked so that the loader never removes it.
#include "module.h"

namespace {

class Staying final : public Module {};

class StayingClass {
 public:
  StayingClass() {
    ModuleBuilder::RegisterModuleClass([] { return new Staying(); }, "Staying",
                                       "staying", "never goes", 1, 1, {},
                                       MODULE_INIT_FUNC(&Staying::Init));
  }
  ~StayingClass() { ModuleBuilder::DeregisterModuleClass("Staying"); }
} staying_class;

}  // namespace
