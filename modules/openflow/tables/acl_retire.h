// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <urcu-qsbr.h>

#include <cstddef>
#include <cstdint>

#include "platform/quil_modules/acl_db.h"

// The ACL database's target number of this module: whose slots it binds, and
// by whose rules its records are released.
inline constexpr uint32_t kAclTarget = 6;

// A published record on its way out, handed to call_rcu.
struct AclCtxRetire {
  QuilModules::AclCtxData* data;
  uint32_t target;
  rcu_head head;
};

// The callback: after a grace period, frees the classifier, the userdata and
// the records. Runs on liburcu's callback thread and touches nothing else.
void freeAcxAsync(rcu_head* head);
