// SPDX-License-Identifier: BSD-3-Clause
#include "modules/openflow/tables/acl_retire.h"

#include <rte_acl.h>
#include <urcu/compiler.h>

void freeAcxAsync(rcu_head* head) {
  AclCtxRetire* retire = caa_container_of(head, AclCtxRetire, head);
  QuilModules::AclCtxData* data = retire->data;
  rte_acl_free(data->ctx);
  data->ctx = nullptr;
  QuilModules::releaseUserdata(data, retire->target);
  delete data;
  delete retire;
}
