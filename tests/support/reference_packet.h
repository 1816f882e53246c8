// SPDX-License-Identifier: BSD-3-Clause
//
// A packet as the reference handles it: one buffer that can be read and written
// behind the data, as the module does with frames that end inside a header, and
// the bytes of any further segments.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tests/support/bytes.h"
#include "tests/support/packet.h"

namespace openflow_test {

class ReferencePacket {
 public:
  explicit ReferencePacket(const InputPacket& input);

  // The same bytes in fresh buffers; the metadata block does not come along.
  ReferencePacket copy() const;

  MetadataBlock meta;

  // Total length, all segments.
  size_t length() const { return firstLength_ + rest_.size(); }
  size_t firstLength() const { return firstLength_; }
  size_t headroom() const { return start_; }
  // From the start of the data to the end of its buffer.
  size_t bufferBytes() const { return kBufferSize - start_; }
  size_t lastTailroom() const { return lastTailroom_; }

  // Bytes counted from the start of the data, whether or not the data reaches
  // that far. Beyond the buffer they are zero until set, and go nowhere.
  uint8_t get(size_t offset) const;
  void set(size_t offset, uint8_t value);
  uint16_t get16(size_t offset) const;
  void set16(size_t offset, uint16_t value);
  uint32_t get32(size_t offset) const;
  void set32(size_t offset, uint32_t value);

  // Move the start of the data towards the front or the back.
  void prepend(size_t count);
  void removeFront(size_t count);

  // Adds zero bytes to the last segment.
  void append(size_t count);

  Bytes bytes() const;

  // A byte behind the data of a copy has been read. A real copy lies in a used
  // buffer, where it may be anything.
  bool readGarbage() const { return readGarbage_; }

 private:
  ReferencePacket() = default;

  Bytes buffer_;  // of the first segment, headroom included
  size_t start_ = 0;
  size_t firstLength_ = 0;
  Bytes rest_;
  size_t segments_ = 1;
  size_t lastTailroom_ = 0;
  bool isCopy_ = false;
  uint8_t fill_ = 0;
  mutable bool readGarbage_ = false;

 public:
  size_t segments() const { return segments_; }
};

}  // namespace openflow_test
