// SPDX-License-Identifier: BSD-3-Clause
//
// The publication of a classifier: one pointer exchange, after which what the
// slot held waits for its grace period.
#include <urcu-qsbr.h>

#include <memory>

#include "modules/openflow/openflow.h"
#include "modules/openflow/tables/acl_retire.h"
#include "modules/openflow/trace.h"

int OpenFlow::updateAclCtx(QuilModules::AclCtx* slot, rte_acl_ctx* ctx,
                           QuilModules::KoAclUserdata* userdata,
                           uint32_t numUserdata) {
  OF_TRACE(kTraceStep,
           "int OpenFlow::updateAclCtx(AclCtx*, rte_acl_ctx*, KoAclUserdata*, "
           "unsigned int): ");
  // All memory is had before the exchange: without it nothing changes. Only
  // this thread exchanges, so the slot holds then what it holds now.
  std::unique_ptr<QuilModules::AclCtxData> data;
  if (ctx != nullptr) {
    OF_TRACE(kTraceDump, "updateAclCtx Allocating new acl context user data");
    data.reset(new QuilModules::AclCtxData{ctx, userdata, numUserdata});
  }
  std::unique_ptr<AclCtxRetire> retire;
  if (slot->data != nullptr) {
    retire.reset(new AclCtxRetire{nullptr, kAclTarget, {}});
  }

  // Pairs with the rcu_dereference of lookupFlowAcl: whoever sees `data` sees
  // the whole build.
  QuilModules::AclCtxData* published = data.release();
  QuilModules::AclCtxData* old = rcu_xchg_pointer(&slot->data, published);
  if (old != nullptr) {
    if (old->ctx == slot->freedCtx) {
      old->ctx = nullptr;  // a DeInit has freed it already
    }
    retire->data = old;
    call_rcu(&retire.release()->head, freeAcxAsync);
  }
  slot->freedCtx = nullptr;
  return 0;
}
