// SPDX-License-Identifier: BSD-3-Clause
//
// The records of one flow table: its flows and its classifier slot for each
// address family, and its event counters.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "modules/openflow/translate/acl_layout.h"
#include "modules/openflow/translate/flow_action.h"
#include "openflow.pb.h"
#include "platform/quil_modules/acl_db.h"
#include "utils/RteAllocator.h"
#include "utils/ko_rcu_ht.h"

inline constexpr uint32_t kNumTables = 32;

// One stored flow, in DPDK memory. The flow identifier is the key under which
// it is stored; the priority is the rule's.
template <typename FLOW_TYPE>
struct OpenFlowEntry {
  FLOW_TYPE rule;  // its userdata is set only in the copy a build makes of it
  OfFlowAction action;
};
static_assert(offsetof(OpenFlowEntry<of_flow_acl_rule>, action) == 384);
static_assert(offsetof(OpenFlowEntry<of_flow_acl_rule_ipv6>, action) == 448);

template <typename FLOW_TYPE>
using OpenFlowStore = KoRcuHt<
    uint32_t, OpenFlowEntry<FLOW_TYPE>*,
    Dpdk::RteAllocator<KoRcuHtNode<uint32_t, OpenFlowEntry<FLOW_TYPE>*>>>;

// The flows of one table for one address family. All but `aclCtx` belongs to
// the control thread; workers load `aclCtx` with rcu_dereference.
template <typename FLOW_TYPE>
struct OpenFlowInfo {
  quil::pb::OpenFlowType flowType;
  OpenFlowStore<FLOW_TYPE>* flows;  // owned by the module
  uint32_t numFlows;                // nodes in `flows`; a build relies on it
  uint8_t tableId;
  QuilModules::AclCtx*
      aclCtx;         // bound slot, owned by the ACL database; or null
  uint64_t ruleSize;  // bytes of one rule record
};

// The event counters of a table, by index.
enum OpenFlowCounter : uint8_t {
  kUpdateFailures = 0,
  kAclCreateFailures = 1,
  kAclAddRulesFailures = 2,
  kAclBuildFailures = 3,
  kClassifyErrors = 4,
  kNoAclCtx = 5,
  kNoClassifier = 6,
  kBatchDrops = 7,
  kTableMisses = 8,
  kSpareCounter = 9,
  kDropActions = 10,
  kNoOutputDrops = 11,
};
inline constexpr int kNumTableCounters = 12;

struct OpenFlowTable {
  OpenFlowInfo<of_flow_acl_rule> ipv4;
  OpenFlowInfo<of_flow_acl_rule_ipv6> ipv6;
  // Counted up by countEvent: by the control thread (0 to 3) and by every
  // worker that runs the table. Two workers at once may lose a count. On cache
  // lines of their own: what counts a miss must not take the slots above, which
  // every batch reads, from the other workers' caches.
  alignas(64) uint64_t counters[kNumTableCounters];
};

// One more. A load and a store instead of a locked instruction: workers do not
// wait for each other to count a drop.
inline void countEvent(uint64_t& counter) {
  const std::atomic_ref<uint64_t> shared(counter);
  shared.store(shared.load(std::memory_order_relaxed) + 1,
               std::memory_order_relaxed);
}

// What has been counted; threads may be counting meanwhile.
inline uint64_t readEvents(const uint64_t& counter) {
  // The reference wants a mutable object, also to read it.
  return std::atomic_ref<uint64_t>(const_cast<uint64_t&>(counter))
      .load(std::memory_order_relaxed);
}

static_assert(offsetof(OpenFlowTable, counters) == 128);
static_assert(sizeof(OpenFlowTable) == 256);
