// SPDX-License-Identifier: BSD-3-Clause
//
// A batch's way through the tables: sorted by start table, then one pass for
// each table that has packets, in ascending order. Go-to-table copies land in
// the batches of later tables, so one sweep serves them all.
#include <rte_prefetch.h>

#include "modules/openflow/datapath/packet_metadata.h"
#include "modules/openflow/datapath/rewrite.h"
#include "modules/openflow/openflow.h"
#include "platform/quil_modules/counter_db.h"
#include "task.h"

namespace {

// The action of the higher priority, the IPv6 one of two equal ones; null when
// neither family matched.
const OfFlowAction* chooseAction(const OfFlowAction& ipv4,
                                 const OfFlowAction& ipv6) {
  if (ipv4.priority > ipv6.priority) {
    return &ipv4;
  }
  return ipv6.priority != 0 ? &ipv6 : nullptr;
}

bool hasOutput(const OfActionFields& fields) {
  return fields.setOutputAll | fields.setOutputFlood | fields.setOutputPort |
         fields.setOutputInPort | fields.setOutputController |
         fields.setOutputDrop | fields.gotoTbl;
}

}  // namespace

void OpenFlow::ProcessBatch(Context* ctx, bess::PacketBatch* batch) {
  bess::PacketBatch* tableBatches[kNumTables] = {};
  const int cnt = batch->cnt();
  bess::Packet** packets = batch->pkts();
  for (int i = 0; i < cnt; i++) {
    rte_prefetch0(packetMetadata(packets[i]));
  }
  for (int i = 0; i < cnt; i++) {
    const OfPacketMetadata& block = *packetMetadata(packets[i]);
    const uint32_t start =
        block.flags & kStartTableValid ? block.startTable : 0;
    if (start >= kNumTables) [[unlikely]] {
      DropPacket(ctx, packets[i]);  // there is no such table
      continue;
    }
    if (tableBatches[start] == nullptr) {
      tableBatches[start] = ctx->task->AllocPacketBatch();
    }
    tableBatches[start]->add(packets[i]);
  }

  for (uint32_t t = 0; t < kNumTables; t++) {
    if (tableBatches[t] != nullptr) {
      processTableBatch(ctx, static_cast<uint8_t>(t), tableBatches);
    }
  }
}

void OpenFlow::processTableBatch(Context* ctx, uint8_t tableId,
                                 bess::PacketBatch** tableBatches) {
  OpenFlowTable& table = tables_[tableId];
  bess::PacketBatch* batch = tableBatches[tableId];

  OfFlowAction ipv4Actions[bess::PacketBatch::kMaxBurst];
  OfFlowAction ipv6Actions[bess::PacketBatch::kMaxBurst];
  if (lookupFlowAcl(tableId, tableBatches, ipv4Actions, ipv6Actions) != 0)
      [[unlikely]] {
    bess::Packet::Free(batch);
    batch->clear();
    table.counters[kBatchDrops]++;
    return;
  }

  QuilModules::WorkerCounters* flowCounters =
      QuilModules::bessCounterDb[ctx->wid];
  const int cnt = batch->cnt();
  for (int i = 0; i < cnt; i++) {
    bess::Packet* packet = batch->pkts()[i];
    const OfFlowAction* action = chooseAction(ipv4Actions[i], ipv6Actions[i]);
    if (action == nullptr) {
      table.counters[kTableMisses]++;
      DropPacket(ctx, packet);
      continue;
    }
    if (flowCounters != nullptr) {
      flowCounters->add(action->packetCounterId, 1);
      flowCounters->add(action->byteCounterId, packet->total_len());
    }
    if (hasRewrites(action->fields)) {
      rewritePacket(packet, *action);
    }
    outputPacket(ctx, tableId, packet, *action, tableBatches);
    if (!hasOutput(action->fields)) {
      table.counters[kNoOutputDrops]++;
    } else if (action->fields.setOutputDrop) {
      table.counters[kDropActions]++;
    }
    DropPacket(ctx, packet);  // what left, left as a copy
  }
}
