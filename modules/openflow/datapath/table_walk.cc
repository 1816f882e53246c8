// SPDX-License-Identifier: BSD-3-Clause
//
// A batch's way through the tables: sorted by start table, then one pass for
// each table that has packets, in ascending order. Go-to-table copies land in
// the batches of later tables, so one sweep serves them all.
#include <rte_prefetch.h>

#include "modules/openflow/datapath/packet_metadata.h"
#include "modules/openflow/datapath/rewrite.h"
#include "modules/openflow/openflow.h"
#include "task.h"
#include "worker.h"

static_assert(QuilModules::CounterDb::kMaxWorkers >= Worker::kMaxWorkers,
              "every worker has its place in the counter database");

namespace {

constexpr uint32_t kNoGate = 0x10000;

// Tables that the sweep passes over at once when none of them has packets.
constexpr uint32_t kStride = 8;
static_assert(kNumTables % kStride == 0);

bool anyBatch(bess::PacketBatch* const* tableBatches) {
  uintptr_t any = 0;
  for (uint32_t i = 0; i < kStride; i++) {
    any |= reinterpret_cast<uintptr_t>(tableBatches[i]);
  }
  return any != 0;
}

uint16_t inPortGate(const bess::Packet* packet) {
  return static_cast<uint16_t>(inPort(*packetMetadata(packet)));
}

}  // namespace

// Every output is a copy of the rewritten packet. One that the packet pool
// cannot give is left out, and the others still go.
inline void OpenFlow::emitCopy(Context* ctx, const bess::Packet* packet,
                               uint16_t gate) {
  bess::Packet* copy = bess::Packet::copy(packet);
  if (copy != nullptr) [[likely]] {
    EmitPacket(ctx, copy, gate);
  }
}

inline void OpenFlow::outputPorts(Context* ctx, const bess::Packet* packet,
                                  const OfActionValues& values,
                                  uint32_t skippedGate) {
  if (values.numOutputGates != 1) [[unlikely]] {
    outputPortList(ctx, packet, values, skippedGate);
  } else if (values.ogate[0] != skippedGate) {
    emitCopy(ctx, packet, values.ogate[0]);
  }
}

void OpenFlow::outputPortList(Context* ctx, const bess::Packet* packet,
                              const OfActionValues& values,
                              uint32_t skippedGate) {
  for (int j = 0; j < values.numOutputGates; j++) {
    if (values.ogate[j] != skippedGate) {
      emitCopy(ctx, packet, values.ogate[j]);
    }
  }
}

// A table that is not a later one would never run, or run again: no copy.
inline void OpenFlow::gotoTable(Context* ctx, uint8_t tableId,
                                bess::Packet* packet, uint8_t nextTable,
                                bess::PacketBatch** tableBatches) {
  if (nextTable <= tableId || nextTable >= kNumTables) [[unlikely]] {
    return;
  }
  bess::Packet* copy = bess::Packet::copy(packet);
  if (copy == nullptr) [[unlikely]] {
    return;
  }
  const OfPacketMetadata& from = *packetMetadata(packet);
  OfPacketMetadata* to = packetMetadata(copy);
  to->metadata = flowMetadata(from);
  to->inPort = inPort(from);
  to->flags |= kMetadataValid | kInPortValid;

  // Never more than 32: each packet of the input batch has one copy on its way
  // at most, and visits no table twice.
  if (tableBatches[nextTable] == nullptr) {
    tableBatches[nextTable] = ctx->task->AllocPacketBatch();
  }
  tableBatches[nextTable]->add(copy);
}

void OpenFlow::outputPacket(Context* ctx, uint8_t tableId, bess::Packet* packet,
                            const OfFlowAction& action,
                            bess::PacketBatch** tableBatches) {
  const OfActionFields& fields = action.fields;
  const OfActionValues& values = action.values;
  const uint16_t inGate = inPortGate(packet);

  if (fields.setOutputAll | fields.setOutputFlood) {
    outputPorts(ctx, packet, values, inGate);
  }
  if (fields.setOutputPort) {
    outputPorts(ctx, packet, values, kNoGate);
  }
  if (fields.setOutputInPort) {
    emitCopy(ctx, packet, inGate);
  }
  if (fields.setOutputController) {
    outputController(ctx, packet, action, inGate);
  }
  if (fields.gotoTbl) {
    gotoTable(ctx, tableId, packet, values.nextTbl, tableBatches);
  }
}

void OpenFlow::sortByStartTable(Context* ctx, const bess::PacketBatch& batch,
                                bess::PacketBatch** tableBatches) {
  for (int i = 0; i < batch.cnt(); i++) {
    bess::Packet* packet = batch.pkts()[i];
    const OfPacketMetadata& block = *packetMetadata(packet);
    const uint32_t start =
        block.flags & kStartTableValid ? block.startTable : 0;
    if (start >= kNumTables) [[unlikely]] {
      DropPacket(ctx, packet);  // there is no such table
      continue;
    }
    if (tableBatches[start] == nullptr) {
      tableBatches[start] = ctx->task->AllocPacketBatch();
    }
    tableBatches[start]->add(packet);
  }
}

void OpenFlow::ProcessBatch(Context* ctx, bess::PacketBatch* batch) {
  bess::PacketBatch* tableBatches[kNumTables] = {};
  const int cnt = batch->cnt();
  bess::Packet** packets = batch->pkts();
#pragma GCC unroll 4
  for (int i = 0; i < cnt; i++) {
    rte_prefetch0(packetMetadata(packets[i]));
    rte_prefetch0(packets[i]->head_data<const uint8_t*>());
  }
  uint64_t flags = 0;  // of any packet
#pragma GCC unroll 4
  for (int i = 0; i < cnt; i++) {
    flags |= packetMetadata(packets[i])->flags;
  }
  if (cnt > 0 && !(flags & kStartTableValid)) {
    // The usual case: all of them start at table 0.
    tableBatches[0] = ctx->task->AllocPacketBatch();
    tableBatches[0]->add(batch);
  } else {
    sortByStartTable(ctx, *batch, tableBatches);
  }

  for (uint32_t first = 0; first < kNumTables; first += kStride) {
    if (!anyBatch(tableBatches + first)) {
      continue;
    }
    for (uint32_t t = first; t < first + kStride; t++) {
      if (tableBatches[t] != nullptr) {
        processTableBatch(ctx, static_cast<uint8_t>(t), tableBatches);
      }
    }
  }
}

void OpenFlow::processTableBatch(Context* ctx, uint8_t tableId,
                                 bess::PacketBatch** tableBatches) {
  OpenFlowTable& table = tables_[tableId];
  bess::PacketBatch* batch = tableBatches[tableId];

  QuilModules::WorkerCounters* flowCounters =
      QuilModules::bessCounterDb[ctx->wid];
  const OfFlowAction* actions[bess::PacketBatch::kMaxBurst];
  if (lookupFlowAcl(tableId, tableBatches, flowCounters, actions) != 0)
      [[unlikely]] {
    bess::Packet::Free(batch);
    batch->clear();
    countEvent(table.counters[kBatchDrops]);
    return;
  }

  const int cnt = batch->cnt();
  for (int i = 0; i < cnt; i++) {
    bess::Packet* packet = batch->pkts()[i];
    const OfFlowAction* action = actions[i];
    if (action->priority == 0) [[unlikely]] {
      countEvent(table.counters[kTableMisses]);
      DropPacket(ctx, packet);
      continue;
    }
    if (flowCounters != nullptr) [[likely]] {
      flowCounters->countPacket(action->packetCounterId, action->byteCounterId,
                                packet->total_len());
    }
    const uint32_t bits = actionBits(*action);
    if (bits & kRewriteBits) [[unlikely]] {
      rewritePacket(packet, *action);
    }
    // Most flows send to one gate, to a list of gates, or on to a later table,
    // and do nothing else. The first have a way without jumps.
    const uint32_t outputs = bits & kOutputBits;
    if (outputs == kOutputPortBit) [[likely]] {
      outputPorts(ctx, packet, action->values, kNoGate);
    } else if (outputs == kOutputAllBit || outputs == kOutputFloodBit) {
      outputPorts(ctx, packet, action->values, inPortGate(packet));
    } else if (outputs == kGotoBit) {
      gotoTable(ctx, tableId, packet, action->values.nextTbl, tableBatches);
    } else {
      outputPacket(ctx, tableId, packet, *action, tableBatches);
      if (outputs == 0) {
        countEvent(table.counters[kNoOutputDrops]);
      } else if (outputs & kOutputDropBit) {
        countEvent(table.counters[kDropActions]);
      }
    }
    DropPacket(ctx, packet);  // what left, left as a copy
  }
}
