// SPDX-License-Identifier: BSD-3-Clause
//
// One lookup of a whole batch: keys of every packet, one classification a
// family, and the matched flows' actions.
#include <glog/logging.h>
#include <rte_acl.h>
#include <rte_prefetch.h>
#include <urcu-qsbr.h>

#include <algorithm>

#include "modules/openflow/datapath/build_key.h"
#include "modules/openflow/datapath/packet_metadata.h"
#include "modules/openflow/openflow.h"

namespace {

constexpr int kPrefetchAhead = 4;

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

void prefetchPacket(const bess::Packet* packet) {
  rte_prefetch0(packetMetadata(packet));
  rte_prefetch0(packet->head_data<const uint8_t*>());
}

template <bool kIpv4, bool kIpv6>
void buildBatchKeys(const bess::PacketBatch& batch, Lookup<OfIpv4Key>* ipv4,
                    Lookup<OfIpv6Key>* ipv6) {
  const int cnt = batch.cnt();
  bess::Packet* const* packets = batch.pkts();
  for (int i = 0; i < std::min(cnt, kPrefetchAhead); i++) {
    prefetchPacket(packets[i]);
  }
  for (int i = 0; i < cnt; i++) {
    if (i + kPrefetchAhead < cnt) {
      prefetchPacket(packets[i + kPrefetchAhead]);
    }
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

// Copies the action of every match. A match of a flow whose action could not
// be allocated has no action to copy, and faults here.
void copyActions(const QuilModules::KoAclUserdata* userdata,
                 const uint32_t* results, int cnt, OfFlowAction* actions) {
  for (int i = 0; i < cnt; i++) {
    if (results[i] != 0) {
      actions[i] =
          *static_cast<const OfFlowAction*>(userdata[results[i]].action);
    }
  }
}

}  // namespace

int OpenFlow::lookupFlowAcl(uint8_t tableId, bess::PacketBatch** tableBatches,
                            OfFlowAction* ipv4Actions,
                            OfFlowAction* ipv6Actions) {
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
  rte_prefetch0(data4);
  rte_prefetch0(data6);

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

  for (int i = 0; i < cnt; i++) {
    ipv4Actions[i].priority = 0;
    ipv6Actions[i].priority = 0;
  }
  if (data4 != nullptr) {
    copyActions(data4->userdata, lookup4.results, cnt, ipv4Actions);
  }
  if (data6 != nullptr) {
    copyActions(data6->userdata, lookup6.results, cnt, ipv6Actions);
  }
  return 0;
}
