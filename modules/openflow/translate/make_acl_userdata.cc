// SPDX-License-Identifier: BSD-3-Clause
#include <rte_malloc.h>

#include "modules/openflow/openflow.h"
#include "modules/openflow/trace.h"

void OpenFlow::makeAclUserdata(OfFlowAction* action,
                               QuilModules::KoAclUserdata* userdata) {
  OF_TRACE(kTraceStep,
           "void OpenFlow::makeAclUserdata(OfFlowAction*, KoAclUserdata*): ");
  auto* copy = static_cast<OfFlowAction*>(rte_malloc(
      "openflowuserdata", sizeof(OfFlowAction), alignof(OfFlowAction)));
  if (copy == nullptr) {
    OF_TRACE(kTraceError,
             "makeAclUserdata Failed to allocate memory for userdata action");
    return;
  }
  *copy = *action;
  userdata->action = copy;
}
