// SPDX-License-Identifier: BSD-3-Clause
#include <rte_malloc.h>
#include <urcu-qsbr.h>

#include <algorithm>
#include <cerrno>
#include <new>

#include "modules/openflow/openflow.h"
#include "modules/openflow/trace.h"
#include "worker.h"

namespace {

constexpr const char* kStorePrefix = "RTE";
constexpr uint32_t kStoreSize = 1024;  // buckets, initial and least

// Prepares `info` for its table; false when its store cannot be allocated.
template <typename FLOW_TYPE>
bool initInfo(OpenFlowInfo<FLOW_TYPE>* info, quil::pb::OpenFlowType flowType,
              uint8_t tableId) {
  info->flowType = flowType;
  info->tableId = tableId;
  info->ruleSize = sizeof(FLOW_TYPE);
  info->flows =
      new (std::nothrow) OpenFlowStore<FLOW_TYPE>(kStorePrefix, kStoreSize);
  return info->flows != nullptr;
}

template <int N>
void initAclConfig(rte_acl_config* config, const rte_acl_field_def (&defs)[N]) {
  config->num_categories = 1;
  config->num_fields = N;
  std::copy_n(defs, N, config->defs);
  config->max_size = 0;
}

// Frees the classifier that `slot` publishes and leaves the record in place.
// The slot remembers which one it was: tables may share a slot.
void freePublishedClassifier(QuilModules::AclCtx* slot) {
  if (slot == nullptr || slot->data == nullptr || slot->data->ctx == nullptr ||
      slot->data->ctx == slot->freedCtx) {
    return;
  }
  rte_acl_free(slot->data->ctx);
  slot->freedCtx = slot->data->ctx;
}

}  // namespace

void* OpenFlow::operator new(size_t size) {
  void* memory = rte_zmalloc(nullptr, size, alignof(OpenFlow));
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

void OpenFlow::operator delete(void* object) { rte_free(object); }

OpenFlow::OpenFlow() : Module() { max_allowed_workers_ = Worker::kMaxWorkers; }

OpenFlow::~OpenFlow() = default;

bess::pb::CommandResponse OpenFlow::Init(const bess::pb::EmptyArg&) {
  OF_TRACE(kTraceStep,
           "CommandResponse OpenFlow::Init(const bess::pb::EmptyArg&): ");
  const Mio::Entity::Type& type = QuilModules::AclDb::entityType();
  Mio::Ptr<Mio::Entity> aclDb = Mio::Entity::singletonExists(type.name);
  if (!aclDb) {
    aclDb = Mio::Entity::singletonIs(type, type.name);
  }
  aclDb_ = Mio::ptrCast<QuilModules::AclDb>(aclDb);

  for (uint32_t t = 0; t < kNumTables; t++) {
    OpenFlowTable& table = tables_[t];
    const auto tableId = static_cast<uint8_t>(t);
    if (!initInfo(&table.ipv4, quil::pb::OPENFLOW_TYPE_IPV4, tableId)) {
      OF_TRACE(kTraceError, "Init Failed to alloc memory for flows hash table");
      destroyStoresBelow(t);
      return CommandFailure(ENOMEM, "Creation of flows hash table failed");
    }
    if (!initInfo(&table.ipv6, quil::pb::OPENFLOW_TYPE_IPV6, tableId)) {
      OF_TRACE(kTraceError,
               "Init Failed to alloc memory for ipv6 flows hash table");
      destroyStoresBelow(t);
      delete table.ipv4.flows;
      return CommandFailure(ENOMEM, "Creation of ipv6 flows hash table failed");
    }
  }

  initAclConfig(&aclConfig_, of_flow_defs);
  initAclConfig(&ipv6AclConfig_, of_flow_defs_ipv6);
  return CommandSuccess();
}

// Like DeInit, leaves the pointers as they are.
void OpenFlow::destroyStoresBelow(uint32_t tableId) {
  for (uint32_t t = 0; t < tableId; t++) {
    delete tables_[t].ipv4.flows;
    delete tables_[t].ipv6.flows;
  }
}

void OpenFlow::DeInit() {
  OF_TRACE(kTraceStep, "virtual void OpenFlow::DeInit(): ");
  for (OpenFlowTable& table : tables_) {
    delete table.ipv4.flows;
    freePublishedClassifier(table.ipv4.aclCtx);
    delete table.ipv6.flows;
    freePublishedClassifier(table.ipv6.aclCtx);
  }
}
