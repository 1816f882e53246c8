// SPDX-License-Identifier: BSD-3-Clause
#include "tests/platform/rte_calls.h"

#include <rte_acl.h>
#include <rte_malloc.h>
#include <urcu-qsbr.h>

#include "tests/support/next_definition.h"

namespace RteCalls {

std::vector<Call>& log() {
  static std::vector<Call> calls;
  return calls;
}

namespace {

bool inAclFree;  // what rte_acl_free frees is its own affair

using openflow_test::next;

}  // namespace
}  // namespace RteCalls

using RteCalls::inAclFree;
using RteCalls::Kind;
using RteCalls::log;
using RteCalls::next;

extern "C" {

void rte_acl_free(rte_acl_ctx* ctx) {
  log().push_back({Kind::kAclFree, ctx});
  inAclFree = true;
  next<decltype(rte_acl_free)>("rte_acl_free")(ctx);
  inAclFree = false;
}

void rte_free(void* p) {
  if (!inAclFree) {
    log().push_back({Kind::kFree, p});
  }
  next<decltype(rte_free)>("rte_free")(p);
}

void urcu_qsbr_synchronize_rcu(void) {
  log().push_back({Kind::kGracePeriod, nullptr});
  next<decltype(urcu_qsbr_synchronize_rcu)>("urcu_qsbr_synchronize_rcu")();
}
}
