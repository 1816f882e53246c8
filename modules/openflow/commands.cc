// SPDX-License-Identifier: BSD-3-Clause
#include <glog/logging.h>
#include <urcu-qsbr.h>

#include <cstdint>

#include "modules/openflow/openflow.h"
#include "modules/openflow/tables/acl_retire.h"
#include "modules/openflow/trace.h"

namespace {

// A module that is gone has freed the slot's classifier and left the record:
// no worker may classify with it.
bool holdsFreedClassifier(const QuilModules::AclCtx& slot) {
  return slot.data != nullptr && slot.freedCtx != nullptr &&
         slot.data->ctx == slot.freedCtx;
}

}  // namespace

bess::pb::CommandResponse OpenFlow::setAclIds(
    const quil::pb::OpenFlowAclArg& arg) {
  const uint32_t tableId = arg.tableid();
  OF_TRACE(kTraceStep, "setAclIds tableId: %s, aclId: %s, ipv6AclId: %s",
           tableId, arg.aclid(), arg.ipv6aclid());
  CHECK(tableId < 32) << "/src/QuilModules/OpenFlow CommandResponse "
                         "OpenFlow::setAclIds(const quil::pb::OpenFlowAclArg&)";

  const QuilModules::AclCtxTable& slotTable =
      *aclDb_->getAclCtxTableByTarget(kAclTarget);
  QuilModules::AclCtx* slots = slotTable.slots;
  for (const uint64_t id : {arg.aclid(), arg.ipv6aclid()}) {
    if (id < slotTable.numSlots && holdsFreedClassifier(slots[id])) {
      updateAclCtx(&slots[id], nullptr, nullptr, 0);
    }
  }
  OpenFlowTable& table = tables_[tableId];
  // Workers load these with rcu_dereference. Slots live as long as the
  // database: leaving one needs no grace period.
  rcu_xchg_pointer(&table.ipv4.aclCtx, slots + arg.aclid());
  rcu_xchg_pointer(&table.ipv6.aclCtx, slots + arg.ipv6aclid());
  return CommandSuccess();
}

bess::pb::CommandResponse OpenFlow::getStats(
    const quil::pb::OpenFlowGetStatsArg& arg) {
  OF_TRACE(kTraceStep,
           "CommandResponse OpenFlow::getStats("
           "const quil::pb::OpenFlowGetStatsArg&): ");
  quil::pb::OpenFlowGetStatsRespArg response;
  if (arg.tableid() >= kNumTables) {
    return CommandFailure(-1, "Invalid table id");
  }
  const OpenFlowTable& table = tables_[arg.tableid()];
  response.set_numflows(table.ipv4.numFlows);
  response.set_numipv6flows(table.ipv6.numFlows);
  response.set_updatefailures(readEvents(table.counters[kUpdateFailures]));
  response.set_aclcreatefailures(
      readEvents(table.counters[kAclCreateFailures]));
  response.set_acladdrulesfailures(
      readEvents(table.counters[kAclAddRulesFailures]));
  response.set_aclbuildfailures(readEvents(table.counters[kAclBuildFailures]));
  response.set_classifyerrors(readEvents(table.counters[kClassifyErrors]));
  response.set_noaclctx(readEvents(table.counters[kNoAclCtx]));
  response.set_noclassifier(readEvents(table.counters[kNoClassifier]));
  response.set_batchdrops(readEvents(table.counters[kBatchDrops]));
  response.set_tablemisses(readEvents(table.counters[kTableMisses]));
  response.set_sparecounter(readEvents(table.counters[kSpareCounter]));
  response.set_dropactions(readEvents(table.counters[kDropActions]));
  response.set_nooutputdrops(readEvents(table.counters[kNoOutputDrops]));
  return CommandSuccess(response);
}
