// SPDX-License-Identifier: BSD-3-Clause
//
// The output that does more to its copy than send it: to the controller.
#include <cstring>

#include "modules/openflow/datapath/packet_metadata.h"
#include "modules/openflow/openflow.h"
#include "task.h"

namespace {

// What precedes a frame on its way to the controller:
//
//   0        6        12   13   14      17      18     22
//   | MAC dst| MAC src| kind 31 | 0 0 0 | reason | 0 .. | frame as it was ...
//
// kind is 0x81 for a trap, else 0.
struct ControllerHeader {
  uint8_t macs[12];
  uint8_t kind;
  uint8_t mark;
  uint8_t reserved1[3];
  uint8_t reason;
  uint8_t reserved2[4];
};
static_assert(sizeof(ControllerHeader) == 22);
static_assert(offsetof(ControllerHeader, reason) == 17);

constexpr uint8_t kKindTrap = 0x81;
constexpr uint8_t kMark = 0x31;
constexpr uint16_t kControllerGate = 0;
constexpr uint16_t kTrailerSize = 4;

void prependControllerHeader(bess::Packet* copy, const OfActionValues& values) {
  const auto* frame = copy->head_data<const uint8_t*>();
  void* room = copy->prepend(sizeof(ControllerHeader));
  if (room == nullptr) {
    return;
  }
  ControllerHeader header = {};
  std::memcpy(header.macs, frame, sizeof(header.macs));
  header.kind = values.outputControllerTrap ? kKindTrap : 0;
  header.mark = kMark;
  header.reason = values.outputControllerReason;
  std::memcpy(room, &header, sizeof(header));
}

void appendTrailer(bess::Packet* copy) {
  bess::Packet* last = copy;
  while (last->next() != nullptr) {
    last = last->next();
  }
  if (last->tailroom() < kTrailerSize) {
    return;
  }
  std::memset(last->head_data<uint8_t*>() + last->head_len(), 0, kTrailerSize);
  last->set_data_len(last->head_len() + kTrailerSize);
  copy->set_total_len(copy->total_len() + kTrailerSize);
}

}  // namespace

void OpenFlow::outputController(Context* ctx, bess::Packet* packet,
                                const OfFlowAction& action,
                                uint16_t inPortGate) {
  bess::Packet* copy = bess::Packet::copy(packet);
  if (copy == nullptr) [[unlikely]] {
    return;
  }
  const bool trap = action.values.outputControllerTrap;
  OfPacketMetadata* block = packetMetadata(copy);
  if (trap) {
    block->metadata = flowMetadata(*packetMetadata(packet));
    block->flags |= kMetadataValid;
  }
  prependControllerHeader(copy, action.values);
  uint16_t gate = inPortGate;
  if (trap) {
    const uint32_t before = block->flags & kPuntValid ? block->puntWord : 0;
    block->puntWord = before | kPuntTrap;
    block->flags |= kPuntValid;
    gate = kControllerGate;
  }
  appendTrailer(copy);
  EmitPacket(ctx, copy, gate);
}
