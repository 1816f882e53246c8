// SPDX-License-Identifier: BSD-3-Clause
//
// What goes into the module and what comes out of it, as plain values: a
// packet's bytes, its metadata block, and the shape of the buffer it lies in.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <vector>

#include "tests/support/bytes.h"

namespace openflow_test {

inline constexpr unsigned kFlowTables = 32;
inline constexpr size_t kMaxBatch = 32;

// The fields of the per-packet metadata area that the module shares with its
// neighbours. A value counts only when its bit of `flags` is set; without it
// the host's buffers hold whatever their last packet left.
struct MetadataBlock {
  static constexpr uint64_t kMetadataValid = uint64_t{1} << 0;
  static constexpr uint64_t kPuntValid = uint64_t{1} << 1;
  static constexpr uint64_t kStartTableValid = uint64_t{1} << 15;
  static constexpr uint64_t kInPortValid = uint64_t{1} << 16;

  uint64_t flags = 0;
  uint64_t metadata = 0;
  uint32_t inPort = 0;
  uint16_t startTable = 0;
  uint32_t puntWord = 0;

  // Each sets a value and its bit.
  MetadataBlock& withMetadata(uint64_t value);
  MetadataBlock& withInPort(uint32_t port);
  MetadataBlock& withStartTable(uint16_t table);
  MetadataBlock& withPuntWord(uint32_t word);

  // The same flags, and the same values wherever the flags make them count.
  bool operator==(const MetadataBlock& other) const;
};

// Where the block's fields lie, counted from the start of the metadata area.
inline constexpr size_t kFlagsOffset = 0;
inline constexpr size_t kMetadataOffset = 16;
inline constexpr size_t kInPortOffset = 52;
inline constexpr size_t kStartTableOffset = 60;
inline constexpr size_t kPuntWordOffset = 108;

// A packet buffer of the host: 128 bytes of headroom in front of 2048 of data
// room.
inline constexpr size_t kBufferSize = 128 + 2048;
inline constexpr size_t kDefaultHeadroom = 128;

struct InputPacket {
  InputPacket() = default;
  // From bytes, or from anything that turns into bytes, such as a Frame.
  template <std::convertible_to<Bytes> Source>
  InputPacket(const Source& frame, MetadataBlock block = {})
      : bytes(frame), meta(block) {}

  Bytes bytes;
  MetadataBlock meta;

  // Free bytes in front of the first segment's data; with `segments` empty the
  // rest of the buffer is tailroom.
  size_t headroom = kDefaultHeadroom;

  // Lengths of the segments that the bytes are spread over; empty puts them
  // into as few buffers as hold them. The lengths must add up to the number of
  // bytes. The second and later segments start without headroom.
  std::vector<size_t> segments;

  // What the buffer holds in front of and behind the data.
  uint8_t fill = 0xee;
};

struct OutputPacket {
  Bytes bytes;
  MetadataBlock meta;
  size_t segments = 1;

  bool operator==(const OutputPacket& other) const {
    return bytes == other.bytes && meta == other.meta;
  }
};

// The event counters of a table, in their order in the module, under the names
// that "getStats" gives them.
struct TableCounters {
  uint64_t updateFailures = 0;
  uint64_t aclCreateFailures = 0;
  uint64_t aclAddRulesFailures = 0;
  uint64_t aclBuildFailures = 0;
  uint64_t classifyErrors = 0;
  uint64_t noAclCtx = 0;
  uint64_t noClassifier = 0;
  uint64_t batchDrops = 0;
  uint64_t tableMisses = 0;
  uint64_t spareCounter = 0;
  uint64_t dropActions = 0;
  uint64_t noOutputDrops = 0;

  bool operator==(const TableCounters&) const = default;
};

// What `later` has more than `earlier`.
TableCounters operator-(const TableCounters& later,
                        const TableCounters& earlier);

// What one batch did.
struct RunResult {
  // Packets by output gate, in the order in which they were emitted on it.
  // Gates without packets are absent.
  std::map<uint16_t, std::vector<OutputPacket>> gates;

  // Growth of the host's drop count for the module and the worker: every
  // received packet and go-to-table copy that was processed, and every copy for
  // a gate that is not connected.
  uint64_t drops = 0;

  // Growth of each table's event counters; tables whose counters stood still
  // are absent.
  std::map<unsigned, TableCounters> tables;

  // Growth of the worker's counters, by index; those that stood still are
  // absent.
  std::map<uint32_t, uint64_t> flowCounters;

  // Packet buffers that left the pool and did not come back, sinks emptied.
  int64_t leakedPackets = 0;

  size_t numEmitted() const;

  // All zero for a table whose counters stood still.
  TableCounters table(unsigned id) const;

  // Packets of a gate; none for a gate without packets.
  const std::vector<OutputPacket>& gate(uint16_t number) const;

  bool operator==(const RunResult&) const = default;
};

// Printed by a failing test: bytes in hexadecimal, then what counts of the
// metadata block.
std::ostream& operator<<(std::ostream& out, const MetadataBlock& block);
std::ostream& operator<<(std::ostream& out, const InputPacket& packet);
std::ostream& operator<<(std::ostream& out, const TableCounters& counters);
std::ostream& operator<<(std::ostream& out, const OutputPacket& packet);
std::ostream& operator<<(std::ostream& out, const RunResult& result);

}  // namespace openflow_test
