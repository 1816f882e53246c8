// SPDX-License-Identifier: BSD-3-Clause
//
// One lookup of a whole batch: keys of every packet, one classification a
// family, and the matched flows' actions.
//
// Actions are referred to, not copied: a published record and its actions are
// never written again, and a worker reports no quiescent state before its batch
// is done, so they outlive the pass whatever the control thread does.

// rcu_dereference as the one atomic load that it is, instead of a call that
// gets a pointer which this file has loaded by ordinary means.
#define URCU_INLINE_SMALL_FUNCTIONS

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
  uint8_t room[kFrameWindow];
  for (int i = 0; i < cnt; i++) {
    buildKeys<kIpv4, kIpv6>(frameWindow(*packets[i], room),
                            flowMetadata(*packetMetadata(packets[i])),
                            &ipv4->keys[i].key, &ipv6->keys[i].key);
    if constexpr (kIpv4) {
      ipv4->keyPointers[i] = reinterpret_cast<uint8_t*>(&ipv4->keys[i]);
    }
    if constexpr (kIpv6) {
      ipv6->keyPointers[i] = reinterpret_cast<uint8_t*>(&ipv6->keys[i]);
    }
  }
}

template <typename Key>
int classify(const rte_acl_ctx* ctx, int cnt, Lookup<Key>* lookup) {
  return rte_acl_classify(ctx, lookup->keyPointers, lookup->results,
                          static_cast<uint32_t>(cnt), 1);
}

// What a packet gets that no flow matches: priority 0 means no match.
constexpr OfFlowAction kNoAction = {};

// In tables of more flows than this, what a match leads to is spread over more
// memory than the second-level cache has left for it. It is asked for, level by
// level, before it is read; below, asking costs more than waiting.
constexpr uint32_t kFlowsAtHand = 4096;

bool isSpread(const QuilModules::AclCtxData* data) {
  return data != nullptr && data->numUserdata > kFlowsAtHand;
}

// The actions that the results select. Starts their loads, too. A match of a
// flow whose action could not be allocated has none, and faults when its
// priority is read.
void findActions(const QuilModules::AclCtxData& data, const uint32_t* results,
                 int cnt, const OfFlowAction** actions) {
  const QuilModules::KoAclUserdata_* userdata = data.userdata;
  if (isSpread(&data)) {
    for (int i = 0; i < cnt; i++) {
      rte_prefetch0(&userdata[results[i]].action);
    }
  }
  for (int i = 0; i < cnt; i++) {
    actions[i] =
        results[i] == 0
            ? &kNoAction
            : static_cast<const OfFlowAction*>(userdata[results[i]].action);
    rte_prefetch0(actions[i]);
  }
}

// Puts the action of the higher priority, the IPv6 one of two equal ones, into
// `actions`, which has the IPv4 ones.
void chooseActions(const OfFlowAction* const* ipv6, int cnt,
                   const OfFlowAction** actions) {
  for (int i = 0; i < cnt; i++) {
    if (actions[i]->priority <= ipv6[i]->priority) {
      actions[i] = ipv6[i];
    }
  }
}

}  // namespace

int OpenFlow::lookupFlowAcl(uint8_t tableId, bess::PacketBatch** tableBatches,
                            const QuilModules::WorkerCounters* flowCounters,
                            const OfFlowAction** actions) {
  OpenFlowTable& table = tables_[tableId];
  const bess::PacketBatch& batch = *tableBatches[tableId];
  const int cnt = batch.cnt();

  const QuilModules::AclCtx* slot4 = rcu_dereference(table.ipv4.aclCtx);
  const QuilModules::AclCtx* slot6 = rcu_dereference(table.ipv6.aclCtx);
  // Slots, records and classifiers are asked for as soon as their addresses are
  // known, of both families before either is read. The classifiers arrive while
  // the keys are built.
  rte_prefetch0(slot4);
  rte_prefetch0(slot6);
  if (slot4 == nullptr || slot6 == nullptr) [[unlikely]] {
    countEvent(table.counters[kNoAclCtx]);
    return -1;
  }
  // Each record is loaded once: its classifier and its userdata belong
  // together. Pairs with the rcu_xchg_pointer of updateAclCtx.
  const QuilModules::AclCtxData* data4 = rcu_dereference(slot4->data);
  const QuilModules::AclCtxData* data6 = rcu_dereference(slot6->data);
  rte_prefetch0(data4);
  rte_prefetch0(data6);
  if (data4 == nullptr && data6 == nullptr) [[unlikely]] {
    countEvent(table.counters[kNoClassifier]);
    return -1;
  }
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
      countEvent(table.counters[kClassifyErrors]);
      return -1;
    }
  }
  if (data6 != nullptr) {
    const rte_acl_ctx* acx6 = data6->ctx;
    CHECK(acx6);
    if (classify(acx6, cnt, &lookup6) != 0) [[unlikely]] {
      countEvent(table.counters[kClassifyErrors]);
      return -1;
    }
  }

  if (data4 != nullptr) {
    findActions(*data4, lookup4.results, cnt, actions);
  }
  if (data6 != nullptr) {
    if (data4 == nullptr) {
      findActions(*data6, lookup6.results, cnt, actions);
    } else {
      const OfFlowAction* ipv6[bess::PacketBatch::kMaxBurst];
      findActions(*data6, lookup6.results, cnt, ipv6);
      chooseActions(ipv6, cnt, actions);
    }
  }
  if (flowCounters != nullptr && (isSpread(data4) || isSpread(data6))) {
    for (int i = 0; i < cnt; i++) {
      flowCounters->prefetch(actions[i]->packetCounterId);
      flowCounters->prefetch(actions[i]->byteCounterId);
    }
  }
  return 0;
}
