// SPDX-License-Identifier: BSD-3-Clause
#include <urcu-qsbr.h>

#include <cstdlib>

#include "module.h"

namespace {

struct Deferred {
  rcu_head head;
};

// Code of this library that may still be waiting when it is unloaded.
void FreeDeferred(rcu_head* head) { free(head); }

class Good final : public Module {
 public:
  CommandResponse Defer(const bess::pb::EmptyArg&) {
    for (int i = 0; i < 1000; i++) {
      auto* deferred = static_cast<Deferred*>(malloc(sizeof(Deferred)));
      call_rcu(&deferred->head, FreeDeferred);
    }
    return CommandSuccess();
  }
};

class GoodClass {
 public:
  GoodClass() {
    ModuleBuilder::RegisterModuleClass(
        [] { return new Good(); }, "Good", "good", "comes and goes", 1, 1,
        {{"defer", "EmptyArg", MODULE_CMD_FUNC(&Good::Defer), THREAD_SAFE}},
        MODULE_INIT_FUNC(&Good::Init));
  }
  ~GoodClass() { ModuleBuilder::DeregisterModuleClass("Good"); }
} good_class;

}  // namespace
