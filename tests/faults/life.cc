// SPDX-License-Identifier: BSD-3-Clause
#include "tests/faults/life.h"

#include <rte_acl.h>
#include <rte_malloc.h>
#include <urcu-qsbr.h>

#include <algorithm>

#include "modules/openflow/tables/acl_retire.h"

namespace faults {

using openflow_test::Flow;

namespace {

constexpr uint32_t kGeneration = 10000000;

}  // namespace

quil::pb::OpenFlowUpdateFlowsArg updateOf(
    uint32_t tableId, int flowType, const Versions& adds,
    const std::vector<uint32_t>& deletes) {
  quil::pb::OpenFlowUpdateFlowsArg arg;
  arg.set_tableid(tableId);
  arg.set_flowtype(static_cast<quil::pb::OpenFlowType>(flowType));
  for (const auto& [id, version] : adds) {
    *arg.add_adds() = Flow(id, 10).ipProto(id).counters(0, version).message();
  }
  for (const uint32_t id : deletes) arg.add_deletes()->set_flowid(id);
  return arg;
}

std::string resultOf(const bess::pb::CommandResponse& response) {
  return response.has_error() ? std::to_string(response.error().code()) + ": " +
                                    response.error().errmsg()
                              : "done";
}

Life::Life() : module_(new OpenFlow) {
  EXPECT_EQ(resultOf(module_->Init({})), "done");
}

Life::~Life() {
  if (module_ != nullptr) end();
}

OpenFlowTable& Life::table(uint32_t id) {
  return OpenFlowPeer::table(*module_, id);
}

QuilModules::AclCtx& Life::slot(uint32_t id) {
  return OpenFlowPeer::aclDb(*module_)
      ->getAclCtxTableByTarget(kAclTarget)
      ->slots[id];
}

void Life::bind(uint32_t tableId) {
  EXPECT_EQ(bind(tableId, 2 * tableId, 2 * tableId + 1), "done");
  slot(2 * tableId).generation = kGeneration;
  slot(2 * tableId + 1).generation = kGeneration;
}

void Life::empty(uint32_t tableId, int flowType) {
  std::vector<uint32_t> all;
  for (const auto& [id, version] : stored(tableId, flowType)) all.push_back(id);
  EXPECT_EQ(update(updateOf(tableId, flowType, {}, all)), "done");
  rcu_barrier();
  EXPECT_EQ(published(tableId, flowType), Versions());
  std::ranges::fill(table(tableId).counters, 0);
  slot(2 * tableId + flowType).generation = kGeneration;
}

std::string Life::bind(uint32_t tableId, uint32_t aclId, uint32_t ipv6AclId) {
  quil::pb::OpenFlowAclArg arg;
  arg.set_tableid(tableId);
  arg.set_aclid(aclId);
  arg.set_ipv6aclid(ipv6AclId);
  return outcome([&] { return module_->setAclIds(arg); });
}

std::string Life::update(const quil::pb::OpenFlowUpdateFlowsArg& arg) {
  return outcome([&] { return module_->updateFlows(arg); });
}

namespace {

template <typename FLOW_TYPE>
Versions storedIn(const OpenFlowInfo<FLOW_TYPE>& info) {
  Versions versions;
  cds_lfht_iter it;
  for (auto* node = info.flows->first(&it); node != nullptr;
       node = info.flows->next(&it)) {
    versions[node->key] = node->value->action.byteCounterId;
  }
  EXPECT_EQ(info.numFlows, versions.size());
  return versions;
}

}  // namespace

Versions Life::stored(uint32_t tableId, int flowType) {
  return flowType == kIpv6 ? storedIn(table(tableId).ipv6)
                           : storedIn(table(tableId).ipv4);
}

Versions Life::published(uint32_t tableId, int flowType) {
  Versions versions;
  const QuilModules::AclCtxData* data = slot(2 * tableId + flowType).data;
  if (data == nullptr) return versions;
  for (uint32_t proto = 0; proto < 256; proto++) {
    OfIpv6Key key{};  // which is the longer one, and begins alike
    key.l2.ipProto = static_cast<uint8_t>(proto);
    const auto* bytes = reinterpret_cast<const uint8_t*>(&key);
    uint32_t result = 0;
    EXPECT_EQ(rte_acl_classify(data->ctx, &bytes, &result, 1, 1), 0);
    if (result == 0) continue;
    const auto* action =
        static_cast<const OfFlowAction*>(data->userdata[result].action);
    versions[proto] = action == nullptr ? kNoAction : action->byteCounterId;
  }
  return versions;
}

std::map<int, uint64_t> Life::counters(uint32_t tableId) {
  std::map<int, uint64_t> counters;
  for (int i = 0; i < kNumTableCounters; i++) {
    const uint64_t counter = table(tableId).counters[i];
    if (counter != 0) counters[i] = counter;
  }
  return counters;
}

void Life::end() {
  module_->DeInit();
  module_.reset();
}

void releaseAll() {
  const Mio::Entity::Type& type = QuilModules::AclDb::entityType();
  Mio::Entity::singletonIs(type, type.name);
  rcu_barrier();
}

int dpdkBlocks() {
  rte_malloc_socket_stats stats;
  EXPECT_EQ(rte_malloc_get_socket_stats(0, &stats), 0);
  return static_cast<int>(stats.alloc_count);
}

}  // namespace faults
