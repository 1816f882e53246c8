// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstddef>
#include <cstdint>

#include "packet.h"

namespace bess {

// What a port says about a packet that it has received: the start of the
// metadata block that all modules share. Fields that a port does not set, and
// the bits of `flags` that make them valid, are other modules' business.
struct PortMetadata {
  static constexpr uint64_t kMetadataValid = uint64_t{1} << 0;
  static constexpr uint64_t kInPortValid = uint64_t{1} << 16;

  uint64_t flags;
  uint64_t reserved1;
  uint64_t metadata;
  uint8_t reserved2[28];
  uint32_t in_port;
};
static_assert(offsetof(PortMetadata, metadata) == 16);
static_assert(offsetof(PortMetadata, in_port) == 52);
static_assert(sizeof(PortMetadata) <= Packet::kMetadataSize);

// Marks a packet as received on `port`, and nothing else in its metadata as
// valid. The 64-bit metadata says so too: it is what flows match, and what
// travels from table to table.
inline void SetReceivedOn(Packet* pkt, uint32_t port) {
  auto* block = pkt->metadata<PortMetadata*>();
  block->flags = PortMetadata::kMetadataValid | PortMetadata::kInPortValid;
  block->metadata = port;
  block->in_port = port;
}

}  // namespace bess
