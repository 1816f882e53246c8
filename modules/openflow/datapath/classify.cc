// SPDX-License-Identifier: BSD-3-Clause
//
// One lookup of a whole batch: keys of every packet, one classification a
// family, and the matched flows' actions.
//
// Actions are referred to, not copied: a published record and its actions are
// never written again, and a worker reports no quiescent state before its batch
// is done, so they outlive the pass whatever the control thread does.
#include <glog/logging.h>
#include <rte_acl.h>
#include <rte_prefetch.h>
#include <urcu-qsbr.h>

#include "modules/openflow/datapath/build_key.h"
#include "modules/openflow/datapath/packet_metadata.h"
#include "modules/openflow/openflow.h"

namespace {

// Each key starts on a cache line of its own.
template <typename Key>
struct alignas(64) KeySlot {
  Key key;
};

// The keys and results of a batch for one family; on the worker's stack.
template <typename Key>
struct Lookup {
  KeySlot<Key> keys[bess::PacketBatch::kMaxBurst];
  const uint8_t* keyPointers[bess::PacketBatch::kMaxBurst];
  uint32_t results[bess::PacketBatch::kMaxBurst];
};

template <bool kIpv4, bool kIpv6>
void buildBatchKeys(const bess::PacketBatch& batch, Lookup<OfIpv4Key>* ipv4,
                    Lookup<OfIpv6Key>* ipv6) {
  const int cnt = batch.cnt();
  bess::Packet* const* packets = batch.pkts();
  for (int i = 0; i < cnt; i++) {
    const FrameWindow frame(*packets[i]);
    buildKeys<kIpv4, kIpv6>(frame.bytes(),
                            flowMetadata(*packetMetadata(packets[i])),
                            &ipv4->keys[i].key, &ipv6->keys[i].key);
  }
}

template <typename Key>
int classify(const rte_acl_ctx* ctx, int cnt, Lookup<Key>* lookup) {
  for (int i = 0; i < cnt; i++) {
    lookup->keyPointers[i] =
        reinterpret_cast<const uint8_t*>(&lookup->keys[i].key);
  }
  return rte_acl_classify(ctx, lookup->keyPointers, lookup->results,
                          static_cast<uint32_t>(cnt), 1);
}

// Starts the loads of what the results select, one level after the other: a
// large table's userdata and actions lie anywhere in memory.
void prefetchActions(const QuilModules::AclCtxData& data,
                     const uint32_t* results, int cnt) {
  for (int i = 0; i < cnt; i++) {
    rte_prefetch0(&data.userdata[results[i]].action);
  }
  for (int i = 0; i < cnt; i++) {
    rte_prefetch0(data.userdata[results[i]].action);
  }
}

// The action of a match; null for none. A match of a flow whose action could
// not be allocated has none either, and faults when its priority is read.
const OfFlowAction* matchedAction(const QuilModules::AclCtxData& data,
                                  uint32_t result, uint32_t* priority) {
  if (result == 0) {
    *priority = 0;
    return nullptr;
  }
  const auto* action =
      static_cast<const OfFlowAction*>(data.userdata[result].action);
  *priority = action->priority;
  return action;
}

// The action of the higher priority, the IPv6 one of two equal ones; null when
// neither family matched with a priority above 0.
void chooseActions(const QuilModules::AclCtxData& data4,
                   const uint32_t* results4,
                   const QuilModules::AclCtxData& data6,
                   const uint32_t* results6, int cnt,
                   const OfFlowAction** actions) {
  for (int i = 0; i < cnt; i++) {
    uint32_t priority4;
    uint32_t priority6;
    const OfFlowAction* ipv4 = matchedAction(data4, results4[i], &priority4);
    const OfFlowAction* ipv6 = matchedAction(data6, results6[i], &priority6);
    actions[i] = priority4 > priority6 ? ipv4 : priority6 != 0 ? ipv6 : nullptr;
  }
}

void chooseActions(const QuilModules::AclCtxData& data, const uint32_t* results,
                   int cnt, const OfFlowAction** actions) {
  for (int i = 0; i < cnt; i++) {
    uint32_t priority;
    const OfFlowAction* action = matchedAction(data, results[i], &priority);
    actions[i] = priority != 0 ? action : nullptr;
  }
}

}  // namespace

int OpenFlow::lookupFlowAcl(uint8_t tableId, bess::PacketBatch** tableBatches,
                            const OfFlowAction** actions) {
  OpenFlowTable& table = tables_[tableId];
  const bess::PacketBatch& batch = *tableBatches[tableId];
  const int cnt = batch.cnt();

  const QuilModules::AclCtx* slot4 = rcu_dereference(table.ipv4.aclCtx);
  const QuilModules::AclCtx* slot6 = rcu_dereference(table.ipv6.aclCtx);
  if (slot4 == nullptr || slot6 == nullptr) [[unlikely]] {
    table.counters[kNoAclCtx]++;
    return -1;
  }
  // Each record is loaded once: its classifier and its userdata belong
  // together. Pairs with the rcu_xchg_pointer of updateAclCtx.
  const QuilModules::AclCtxData* data4 = rcu_dereference(slot4->data);
  const QuilModules::AclCtxData* data6 = rcu_dereference(slot6->data);
  if (data4 == nullptr && data6 == nullptr) [[unlikely]] {
    table.counters[kNoClassifier]++;
    return -1;
  }
  // The classifiers arrive while the keys are built.
  if (data4 != nullptr) {
    rte_prefetch0(data4->ctx);
  }
  if (data6 != nullptr) {
    rte_prefetch0(data6->ctx);
  }

  Lookup<OfIpv4Key> lookup4;
  Lookup<OfIpv6Key> lookup6;
  if (data6 == nullptr) {
    buildBatchKeys<true, false>(batch, &lookup4, &lookup6);
  } else if (data4 == nullptr) {
    buildBatchKeys<false, true>(batch, &lookup4, &lookup6);
  } else {
    buildBatchKeys<true, true>(batch, &lookup4, &lookup6);
  }

  if (data4 != nullptr) {
    if (classify(data4->ctx, cnt, &lookup4) != 0) [[unlikely]] {
      table.counters[kClassifyErrors]++;
      return -1;
    }
  }
  if (data6 != nullptr) {
    const rte_acl_ctx* acx6 = data6->ctx;
    CHECK(acx6);
    if (classify(acx6, cnt, &lookup6) != 0) [[unlikely]] {
      table.counters[kClassifyErrors]++;
      return -1;
    }
  }

  if (data4 != nullptr) {
    prefetchActions(*data4, lookup4.results, cnt);
  }
  if (data6 != nullptr) {
    prefetchActions(*data6, lookup6.results, cnt);
  }
  if (data6 == nullptr) {
    chooseActions(*data4, lookup4.results, cnt, actions);
  } else if (data4 == nullptr) {
    chooseActions(*data6, lookup6.results, cnt, actions);
  } else {
    chooseActions(*data4, lookup4.results, *data6, lookup6.results, cnt,
                  actions);
  }
  return 0;
}
