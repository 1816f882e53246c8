// SPDX-License-Identifier: BSD-3-Clause
#include "tests/support/reference_packet.h"

#include <algorithm>

namespace openflow_test {
namespace {

constexpr size_t kDataRoom = kBufferSize - kDefaultHeadroom;

// Zero bytes behind a buffer, for headers that would reach beyond it.
constexpr size_t kBeyond = 256;

}  // namespace

ReferencePacket::ReferencePacket(const InputPacket& input)
    : meta(input.meta), start_(input.headroom), fill_(input.fill) {
  const size_t firstRoom = kBufferSize - input.headroom;
  buffer_.assign(kBufferSize, input.fill);
  buffer_.resize(kBufferSize + kBeyond);
  firstLength_ = input.segments.empty()
                     ? std::min(input.bytes.size(), firstRoom)
                     : input.segments.front();
  const auto split = input.bytes.begin() + static_cast<ptrdiff_t>(firstLength_);
  std::copy(input.bytes.begin(), split,
            buffer_.begin() + static_cast<ptrdiff_t>(start_));
  rest_.assign(split, input.bytes.end());
  lastTailroom_ = firstRoom - firstLength_;  // received packets grow nowhere
}

ReferencePacket ReferencePacket::copy() const {
  ReferencePacket twin;
  const Bytes all = bytes();
  twin.fill_ = fill_;
  twin.isCopy_ = true;
  twin.buffer_.assign(kBufferSize, fill_);
  twin.buffer_.resize(kBufferSize + kBeyond);

  // Full headroom, unless that alone would take a segment more.
  size_t at = 0;
  twin.segments_ = 0;
  do {
    const size_t left = all.size() - at;
    const bool tight = left > kDataRoom && left <= kBufferSize;
    const size_t start = tight ? kBufferSize - left : kDefaultHeadroom;
    const size_t length = std::min(left, kBufferSize - start);
    if (twin.segments_++ == 0) {
      twin.start_ = start;
      twin.firstLength_ = length;
    }
    twin.lastTailroom_ = kBufferSize - start - length;
    at += length;
  } while (at < all.size());

  const auto split = all.begin() + static_cast<ptrdiff_t>(twin.firstLength_);
  std::copy(all.begin(), split,
            twin.buffer_.begin() + static_cast<ptrdiff_t>(twin.start_));
  twin.rest_.assign(split, all.end());
  return twin;
}

uint8_t ReferencePacket::get(size_t offset) const {
  if (isCopy_ && offset >= firstLength_) readGarbage_ = true;
  return buffer_.at(start_ + offset);
}

void ReferencePacket::set(size_t offset, uint8_t value) {
  buffer_.at(start_ + offset) = value;
}

uint16_t ReferencePacket::get16(size_t offset) const {
  return static_cast<uint16_t>(get(offset) << 8 | get(offset + 1));
}

void ReferencePacket::set16(size_t offset, uint16_t value) {
  set(offset, static_cast<uint8_t>(value >> 8));
  set(offset + 1, static_cast<uint8_t>(value));
}

uint32_t ReferencePacket::get32(size_t offset) const {
  return static_cast<uint32_t>(get16(offset)) << 16 | get16(offset + 2);
}

void ReferencePacket::set32(size_t offset, uint32_t value) {
  set16(offset, static_cast<uint16_t>(value >> 16));
  set16(offset + 2, static_cast<uint16_t>(value));
}

void ReferencePacket::prepend(size_t count) {
  start_ -= count;
  firstLength_ += count;
}

void ReferencePacket::removeFront(size_t count) {
  start_ += count;
  firstLength_ -= count;
}

void ReferencePacket::append(size_t count) {
  if (rest_.empty()) {
    for (size_t i = 0; i < count; i++) set(firstLength_ + i, 0);
    firstLength_ += count;
  } else {
    rest_.insert(rest_.end(), count, 0);
  }
  lastTailroom_ -= count;
}

Bytes ReferencePacket::bytes() const {
  const auto begin = buffer_.begin() + static_cast<ptrdiff_t>(start_);
  Bytes all(begin, begin + static_cast<ptrdiff_t>(firstLength_));
  all.insert(all.end(), rest_.begin(), rest_.end());
  return all;
}

}  // namespace openflow_test
