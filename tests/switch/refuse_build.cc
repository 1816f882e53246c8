// SPDX-License-Identifier: BSD-3-Clause
#include "tests/switch/refuse_build.h"

#include <dlfcn.h>
#include <rte_acl.h>

#include <atomic>
#include <cerrno>

#include "control.h"

// Of the leak checker, where there is one.
extern "C" [[gnu::weak]] void __lsan_disable();
extern "C" [[gnu::weak]] void __lsan_enable();

namespace {

void onControlThread(void (*fn)()) {
  if (fn != nullptr) bess::ControlThread::Instance().Run(fn);
}

std::atomic<int> buildsLeft = -1;  // negative: refuse none

}  // namespace

namespace ofswitch {

// The module never frees the records of a build that failed.
RefuseBuild::RefuseBuild(int successes) {
  onControlThread(__lsan_disable);
  buildsLeft = successes;
}

RefuseBuild::~RefuseBuild() {
  buildsLeft = -1;
  onControlThread(__lsan_enable);
}

}  // namespace ofswitch

// The module finds this one before the library's.
extern "C" int rte_acl_build(rte_acl_ctx* ctx, const rte_acl_config* config) {
  static const auto build = reinterpret_cast<decltype(&rte_acl_build)>(
      dlsym(RTLD_NEXT, "rte_acl_build"));
  if (buildsLeft >= 0 && buildsLeft-- == 0) return -ENOMEM;
  return build(ctx, config);
}
