// SPDX-License-Identifier: BSD-3-Clause
//
// Builds a classifier out of all flows of one table and family, aside, and has
// it published. The slot keeps what it has when a build fails, also for taking
// more memory than builds may; the userdata of such a build stays allocated.
#include <fmt/core.h>
#include <glog/logging.h>
#include <rte_acl.h>
#include <rte_prefetch.h>
#include <urcu-qsbr.h>
#include <urcu/rculfhash.h>

#include <cstring>
#include <memory>
#include <string>

#include "modules/openflow/openflow.h"
#include "modules/openflow/trace.h"
#include "utils/acl_build_memory.h"

namespace {

// "table3-7" or "table3-ipv6-8", by the slot's next free generation number. A
// name can be taken by another instance's classifier or by a retired one that
// still waits for its grace period; rte_acl_create would hand that one out.
std::string nextAclCtxName(uint8_t tableId, bool ipv6,
                           QuilModules::AclCtx* slot) {
  std::string name;
  do {
    slot->generation++;
    name = fmt::format("table{}-{}{}", tableId, ipv6 ? "ipv6-" : "",
                       slot->generation);
  } while (rte_acl_find_existing(name.c_str()) != nullptr);
  return name;
}

// rte_acl takes priorities from 1 up. With a flow of priority 0 among them all
// rules move up by one, so that their order stays; one at the top stays there.
// Actions keep their flow's own priority, by which workers see the 0.
template <typename FLOW_TYPE>
void makeRoomForPriorityZero(FLOW_TYPE* rules, uint32_t numRules) {
  for (uint32_t i = 0; i < numRules; i++) {
    auto priority = static_cast<uint32_t>(rules[i].data.priority);
    if (priority != RTE_ACL_MAX_PRIORITY) {
      rules[i].data.priority = static_cast<int32_t>(priority + 1);
    }
  }
}

// The walk comes upon entries anywhere in memory. All that a build reads of one
// is fetched while the one before is copied.
template <typename FLOW_TYPE>
void prefetchEntry(const OpenFlowEntry<FLOW_TYPE>& entry) {
  const auto* bytes = reinterpret_cast<const char*>(&entry);
  for (size_t at = 0; at < sizeof(entry); at += RTE_CACHE_LINE_SIZE) {
    rte_prefetch0(bytes + at);
  }
}

// A classifier on its way to being published.
struct AclFree {
  void operator()(rte_acl_ctx* ctx) const { rte_acl_free(ctx); }
};
using AclPtr = std::unique_ptr<rte_acl_ctx, AclFree>;

// rte_acl_build within the memory that builds may take.
int buildAcl(rte_acl_ctx* ctx, const rte_acl_config& config) {
  const Dpdk::AclBuildScope scope;
  const int rc = rte_acl_build(ctx, &config);
  if (scope.memory().refused) {
    OF_TRACE(kTraceError,
             "buildAcl A build may take %s MB, this one needs more",
             scope.memory().limit >> 20);
  }
  return rc;
}

}  // namespace

const rte_acl_config& OpenFlow::aclConfigOf(
    quil::pb::OpenFlowType flowType) const {
  return flowType == quil::pb::OPENFLOW_TYPE_IPV6 ? ipv6AclConfig_ : aclConfig_;
}

template <typename FLOW_TYPE>
void OpenFlow::collectRules(FLOW_TYPE* rules,
                            QuilModules::KoAclUserdata* userdata,
                            OpenFlowInfo<FLOW_TYPE>* info) {
  uint32_t n = 0;
  bool priorityZero = false;
  using Node = typename OpenFlowStore<FLOW_TYPE>::Node;
  cds_lfht_iter iter;
  Node* ahead = info->flows->first(&iter);
  while (ahead != nullptr) {
    const Node* node = ahead;
    ahead = info->flows->next(&iter);
    if (ahead != nullptr) {
      prefetchEntry(*ahead->value);
    }
    if (n == info->numFlows) {
      const std::string errMsg =
          fmt::format(" Incorrect flow count for tableId {} flowType {}",
                      info->tableId, static_cast<int>(info->flowType));
      CHECK(false && errMsg.c_str()) << errMsg;
    }
    OpenFlowEntry<FLOW_TYPE>* entry = node->value;
    FLOW_TYPE& rule = rules[n];
    std::memcpy(&rule, &entry->rule, info->ruleSize);
    rule.data.userdata = n + 1;  // 0 is what a lookup without a match answers
    makeAclUserdata(&entry->action, &userdata[n + 1]);
    priorityZero |= rule.data.priority == 0;
    n++;
  }
  if (priorityZero) {
    makeRoomForPriorityZero(rules, n);
  }
}

template <typename FLOW_TYPE>
int OpenFlow::programAcl(FLOW_TYPE* rules, QuilModules::KoAclUserdata* userdata,
                         OpenFlowInfo<FLOW_TYPE>* info) {
  const uint8_t tableId = info->tableId;
  const bool ipv6 = info->flowType == quil::pb::OPENFLOW_TYPE_IPV6;
  uint64_t* counters = tables_[tableId].counters;
  OF_TRACE(kTraceStep, "programAcl tableId: %s, flowType: %s", tableId,
           info->flowType);
  if (info->aclCtx == nullptr) {
    OF_TRACE(kTraceError,
             "programAcl No acl slot bound for tableId: %s, flowType: %s",
             tableId, info->flowType);
    delete[] userdata;
    return -1;
  }
  if (info->numFlows == 0) {
    OF_TRACE(kTraceStep,
             "programAcl No more flows for tableId: %s, flowType: %s", tableId,
             info->flowType);
    delete[] userdata;
    return updateAclCtx(info->aclCtx, nullptr, nullptr, 0);
  }

  collectRules(rules, userdata, info);

  const std::string name = nextAclCtxName(tableId, ipv6, info->aclCtx);
  OF_TRACE(kTraceStep, "programAcl aclCtxName: %s, numFlows: %s", name,
           info->numFlows);

  rte_acl_param param = {};
  param.name = name.c_str();
  param.socket_id = SOCKET_ID_ANY;
  param.rule_size =
      ipv6 ? RTE_ACL_RULE_SZ(kNumIpv6Fields) : RTE_ACL_RULE_SZ(kNumIpv4Fields);
  param.max_rule_num = info->numFlows;
  AclPtr ctx(rte_acl_create(&param));
  if (ctx == nullptr) {
    OF_TRACE(kTraceError,
             "programAcl Failed to create rte acl context: %s for tableId: %s, "
             "flowType: %s",
             name, tableId, info->flowType);
    countEvent(counters[kAclCreateFailures]);
    return -1;
  }

  int rc = rte_acl_add_rules(ctx.get(), reinterpret_cast<rte_acl_rule*>(rules),
                             info->numFlows);
  if (rc != 0) {
    OF_TRACE(kTraceError,
             "programAcl Failed to add acl rules for aclCtx: %s, tableId: %s, "
             "flowType: %s, numFlows: %s error: %s",
             name, tableId, info->flowType, info->numFlows, rc);
    countEvent(counters[kAclAddRulesFailures]);
    return -1;
  }

  rc = buildAcl(ctx.get(), aclConfigOf(info->flowType));
  if (rc != 0) {
    OF_TRACE(kTraceError,
             "programAcl Failed to build acl for tableId: %s, flowType: %s "
             "error: %s",
             tableId, info->flowType, rc);
    countEvent(counters[kAclBuildFailures]);
    return -1;
  }

  rc = updateAclCtx(info->aclCtx, ctx.get(), userdata, info->numFlows);
  if (rc != 0) {
    OF_TRACE(kTraceError,
             "programAcl Failed to update acl context for tableId: %s, "
             "flowType: %s error: %s",
             tableId, info->flowType, rc);
    return -1;
  }
  ctx.release();  // the slot's now
  return 0;
}

template int OpenFlow::programAcl(of_flow_acl_rule*,
                                  QuilModules::KoAclUserdata*,
                                  OpenFlowInfo<of_flow_acl_rule>*);
template int OpenFlow::programAcl(of_flow_acl_rule_ipv6*,
                                  QuilModules::KoAclUserdata*,
                                  OpenFlowInfo<of_flow_acl_rule_ipv6>*);
