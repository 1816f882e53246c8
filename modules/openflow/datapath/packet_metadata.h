// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstddef>
#include <cstdint>

#include "packet.h"

// The part of a packet's metadata area that this module reads and writes. The
// host's other modules use the rest: its bits and bytes are preserved.
struct OfPacketMetadata {
  uint64_t flags;  // which of the fields below are valid
  uint64_t reserved1;
  uint64_t metadata;  // 64-bit flow metadata, exactly matched by flows
  uint8_t reserved2[28];
  uint32_t inPort;  // gate on which the packet came in: the low 16 bits
  uint8_t reserved3[4];
  uint16_t startTable;  // table at which the walk starts
  uint8_t reserved4[46];
  uint32_t puntWord;
  uint8_t reserved5[16];
};
static_assert(offsetof(OfPacketMetadata, metadata) == 16);
static_assert(offsetof(OfPacketMetadata, inPort) == 52);
static_assert(offsetof(OfPacketMetadata, startTable) == 60);
static_assert(offsetof(OfPacketMetadata, puntWord) == 108);
static_assert(sizeof(OfPacketMetadata) == 128, "the host's metadata area");

inline constexpr uint64_t kMetadataValid = uint64_t{1} << 0;
inline constexpr uint64_t kPuntValid = uint64_t{1} << 1;
inline constexpr uint64_t kStartTableValid = uint64_t{1} << 15;
inline constexpr uint64_t kInPortValid = uint64_t{1} << 16;

// Bit of puntWord: the packet goes to the controller as a trap.
inline constexpr uint32_t kPuntTrap = uint32_t{1} << 17;

inline OfPacketMetadata* packetMetadata(bess::Packet* packet) {
  return packet->metadata<OfPacketMetadata*>();
}

inline const OfPacketMetadata* packetMetadata(const bess::Packet* packet) {
  return packet->metadata<const OfPacketMetadata*>();
}

// The metadata that flows match: 0 when the packet carries none.
inline uint64_t flowMetadata(const OfPacketMetadata& block) {
  return block.flags & kMetadataValid ? block.metadata : 0;
}

inline uint32_t inPort(const OfPacketMetadata& block) {
  return block.flags & kInPortValid ? block.inPort : 0;
}
