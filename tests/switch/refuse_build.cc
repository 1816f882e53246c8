// SPDX-License-Identifier: BSD-3-Clause
#include "tests/switch/refuse_build.h"

#include <dlfcn.h>
#include <rte_acl.h>

#include <atomic>
#include <cerrno>

namespace {

std::atomic<int> buildsLeft = -1;  // negative: refuse none

}  // namespace

namespace ofswitch {

RefuseBuild::RefuseBuild(int successes) { buildsLeft = successes; }

RefuseBuild::~RefuseBuild() { buildsLeft = -1; }

}  // namespace ofswitch

// The module finds this one before the library's.
extern "C" int rte_acl_build(rte_acl_ctx* ctx, const rte_acl_config* config) {
  static const auto build = reinterpret_cast<decltype(&rte_acl_build)>(
      dlsym(RTLD_NEXT, "rte_acl_build"));
  if (buildsLeft >= 0 && buildsLeft-- == 0) return -ENOMEM;
  return build(ctx, config);
}
