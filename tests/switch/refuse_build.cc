// SPDX-License-Identifier: BSD-3-Clause
#include "tests/switch/refuse_build.h"

#include <dlfcn.h>
#include <rte_acl.h>

#include <atomic>
#include <cerrno>

namespace {

std::atomic<int> successesLeft = 0;
std::atomic<int> refusalsLeft = 0;

}  // namespace

namespace ofswitch {

RefuseBuild::RefuseBuild(int successes, int refusals) {
  successesLeft = successes;
  refusalsLeft = refusals;
}

RefuseBuild::~RefuseBuild() { refusalsLeft = 0; }

}  // namespace ofswitch

// The module finds this one before the library's.
extern "C" int rte_acl_build(rte_acl_ctx* ctx, const rte_acl_config* config) {
  static const auto build = reinterpret_cast<decltype(&rte_acl_build)>(
      dlsym(RTLD_NEXT, "rte_acl_build"));
  if (refusalsLeft == 0 || successesLeft-- > 0) return build(ctx, config);
  refusalsLeft--;
  return -ENOMEM;
}
