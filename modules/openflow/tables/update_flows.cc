// SPDX-License-Identifier: BSD-3-Clause
//
// The command "updateFlows": changes the flow store of one table and family,
// then has its classifier rebuilt and published.
//
// An update's own memory is allocated before the store is touched: one that
// fails with -12, or throws std::bad_alloc there, has changed nothing. A build
// that fails afterwards leaves the changed store behind the old classifier; the
// next build takes everything from the store.
#include <alloca.h>
#include <rte_malloc.h>

#include <cerrno>
#include <memory>
#include <new>

#include "modules/openflow/openflow.h"
#include "modules/openflow/trace.h"

namespace {

// The entries of one update: pointers on the caller's stack.
template <typename FLOW_TYPE>
bool allocateEntries(OpenFlowEntry<FLOW_TYPE>** entries, int numAdds) {
  using Entry = OpenFlowEntry<FLOW_TYPE>;
  for (int i = 0; i < numAdds; i++) {
    entries[i] = static_cast<Entry*>(
        rte_zmalloc("openflowentry", sizeof(Entry), alignof(Entry)));
    if (entries[i] == nullptr) {
      // The entries before this one stay allocated: the loop releases the slot
      // that failed, once for each of them.
      for (int freed = 0; freed < i; freed++) {
        rte_free(entries[i]);
      }
      return false;
    }
  }
  return true;
}

template <typename FLOW_TYPE>
void freeEntries(OpenFlowEntry<FLOW_TYPE>** entries, int numAdds) {
  for (int i = 0; i < numAdds; i++) {
    rte_free(entries[i]);
  }
}

struct RteFree {
  void operator()(void* memory) const { rte_free(memory); }
};

// The first add that outputs to more gates than fit an action record, or -1. A
// gate list without an output is not read.
int findTooManyGates(const quil::pb::OpenFlowUpdateFlowsArg& arg) {
  for (int i = 0; i < arg.adds_size(); i++) {
    const quil::pb::OfAction& action = arg.adds(i).action();
    const quil::pb::OfActionFields& fields = action.fields();
    if (action.values().ogate_size() > kMaxOutputGates &&
        (fields.setoutputall() || fields.setoutputflood() ||
         fields.setoutputport())) {
      return i;
    }
  }
  return -1;
}

}  // namespace

bess::pb::CommandResponse OpenFlow::updateFlows(
    const quil::pb::OpenFlowUpdateFlowsArg& arg) {
  OF_TRACE(kTraceStep, "updateFlows tableId: %s flowType: %s", arg.tableid(),
           arg.flowtype());
  if (arg.tableid() >= kNumTables) {
    return CommandFailure(-1, "Invalid table id");
  }
  OpenFlowTable& table = tables_[arg.tableid()];
  const int rc = arg.flowtype() == quil::pb::OPENFLOW_TYPE_IPV6
                     ? processUpdateFlows(arg, &table.ipv6)
                     : processUpdateFlows(arg, &table.ipv4);
  if (rc != 0) {
    return CommandFailure(rc, "Failed to update flows");
  }
  return CommandSuccess();
}

template <typename FLOW_TYPE>
int OpenFlow::processUpdateFlows(const quil::pb::OpenFlowUpdateFlowsArg& arg,
                                 OpenFlowInfo<FLOW_TYPE>* info) {
  using Entry = OpenFlowEntry<FLOW_TYPE>;
  const int numAdds = arg.adds_size();
  const int numDeletes = arg.deletes_size();
  uint64_t* counters = tables_[info->tableId].counters;
  OF_TRACE(kTraceStep,
           "processUpdateFlows tableId: %s flowType: %s, numAdds: %s, "
           "numDeletes: %s",
           info->tableId, info->flowType, numAdds, numDeletes);

  if (const int bad = findTooManyGates(arg); bad >= 0) {
    OF_TRACE(
        kTraceError,
        "processUpdateFlows flowId: %s has %s output gates, at most %s fit",
        arg.adds(bad).flowid(), arg.adds(bad).action().values().ogate_size(),
        kMaxOutputGates);
    countEvent(counters[kUpdateFailures]);
    return -1;
  }

  auto** entries = static_cast<Entry**>(alloca(numAdds * sizeof(Entry*)));
  if (!allocateEntries(entries, numAdds)) {
    OF_TRACE(kTraceError,
             "processUpdateFlows Failed to allocate memory for flow entries");
    countEvent(counters[kUpdateFailures]);
    return -ENOMEM;
  }

  // An add raises the count by one at most, so this is room enough.
  const size_t total = size_t{info->numFlows} + numAdds;
  std::unique_ptr<FLOW_TYPE, RteFree> rules;
  QuilModules::KoAclUserdata* userdata = nullptr;
  if (total > 0) {
    rules.reset(static_cast<FLOW_TYPE*>(
        rte_malloc("openflowallrules", total * info->ruleSize, 64)));
    if (rules == nullptr) {
      OF_TRACE(
          kTraceError,
          "processUpdateFlows Failed to allocate memory for all acl rules");
      countEvent(counters[kUpdateFailures]);
      freeEntries(entries, numAdds);
      return -ENOMEM;
    }
    try {
      userdata = new QuilModules::KoAclUserdata[total + 1]();
    } catch (const std::bad_alloc&) {
      freeEntries(entries, numAdds);
      throw;
    }
  }

  for (int i = 0; i < numAdds; i++) {
    addFlow(arg.adds(i), entries[i], info);
  }
  for (const quil::pb::OpenFlowDeleteFlow& flow : arg.deletes()) {
    deleteFlow(flow, info);
  }

  const int rc = programAcl(rules.get(), userdata, info);
  if (rc != 0) {
    OF_TRACE(kTraceError,
             "processUpdateFlows Failed to program acl rules for tableId: %s, "
             "flowType: %s",
             info->tableId, info->flowType);
    countEvent(counters[kUpdateFailures]);
  }
  return rc;
}

template <typename FLOW_TYPE>
void OpenFlow::addFlow(const quil::pb::OpenFlowAddFlow& flow,
                       OpenFlowEntry<FLOW_TYPE>* entry,
                       OpenFlowInfo<FLOW_TYPE>* info) {
  OF_TRACE(kTraceStep,
           "addFlow tableId: %s, flowType: %s, flowId: %s, priority: %s",
           info->tableId, info->flowType, flow.flowid(), flow.priority());
  if (info->flows->lookup(flow.flowid()) != nullptr) {
    OF_TRACE(kTraceStep, "addFlow Flow modification for flowId: %s",
             flow.flowid());
    info->flows->erase(flow.flowid());
    info->numFlows--;
  }
  makeAclRule(info->flowType, flow, &entry->rule);
  makeAction(flow, &entry->action);
  info->flows->addReplace(flow.flowid(), entry,
                          &OpenFlow::freeFlowEntry<FLOW_TYPE>);
  info->numFlows++;
}

template <typename FLOW_TYPE>
void OpenFlow::deleteFlow(const quil::pb::OpenFlowDeleteFlow& flow,
                          OpenFlowInfo<FLOW_TYPE>* info) {
  OF_TRACE(kTraceStep, "deleteFlow tableId: %s, flowType: %s, flowId: %s",
           info->tableId, info->flowType, flow.flowid());
  if (info->flows->lookup(flow.flowid()) == nullptr) {
    OF_TRACE(kTraceStep, "deleteFlow Flow not found for flowId: %s",
             flow.flowid());
    return;
  }
  info->flows->erase(flow.flowid());
  info->numFlows--;
}

template <typename FLOW_TYPE>
void OpenFlow::freeFlowEntry(OpenFlowEntry<FLOW_TYPE>* entry) {
  rte_free(entry);
}

// Unit tests call these; updateFlows instantiates the rest.
template int OpenFlow::processUpdateFlows(
    const quil::pb::OpenFlowUpdateFlowsArg&, OpenFlowInfo<of_flow_acl_rule>*);
template int OpenFlow::processUpdateFlows(
    const quil::pb::OpenFlowUpdateFlowsArg&,
    OpenFlowInfo<of_flow_acl_rule_ipv6>*);
template void OpenFlow::addFlow(const quil::pb::OpenFlowAddFlow&,
                                OpenFlowEntry<of_flow_acl_rule>*,
                                OpenFlowInfo<of_flow_acl_rule>*);
template void OpenFlow::addFlow(const quil::pb::OpenFlowAddFlow&,
                                OpenFlowEntry<of_flow_acl_rule_ipv6>*,
                                OpenFlowInfo<of_flow_acl_rule_ipv6>*);
template void OpenFlow::deleteFlow(const quil::pb::OpenFlowDeleteFlow&,
                                   OpenFlowInfo<of_flow_acl_rule>*);
template void OpenFlow::deleteFlow(const quil::pb::OpenFlowDeleteFlow&,
                                   OpenFlowInfo<of_flow_acl_rule_ipv6>*);
template void OpenFlow::freeFlowEntry(OpenFlowEntry<of_flow_acl_rule>*);
template void OpenFlow::freeFlowEntry(OpenFlowEntry<of_flow_acl_rule_ipv6>*);
