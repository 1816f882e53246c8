// SPDX-License-Identifier: BSD-3-Clause
//
// Frames as the data path sees them: bytes at fixed positions, never checked
// against the packet's length. What lies behind a short packet's last byte is
// whatever its buffer holds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "packet.h"

// Wire numbers, in host order.
inline constexpr uint16_t kEthTypeIpv4 = 0x0800;
inline constexpr uint16_t kEthTypeArp = 0x0806;
inline constexpr uint16_t kEthTypeVlan = 0x8100;  // IEEE 802.1Q
inline constexpr uint16_t kEthTypeQinQ = 0x88a8;  // IEEE 802.1ad
inline constexpr uint16_t kEthTypeIpv6 = 0x86dd;
inline constexpr uint16_t kMinEthType = 0x0600;  // below: an 802.3 length

inline constexpr uint8_t kProtoIcmp = 1;
inline constexpr uint8_t kProtoTcp = 6;
inline constexpr uint8_t kProtoUdp = 17;
inline constexpr uint8_t kProtoIcmpv6 = 58;

inline constexpr size_t kEthTypeOffset = 12;
inline constexpr size_t kEthHeaderSize = 14;
inline constexpr size_t kVlanTagSize = 4;
inline constexpr size_t kIpv4HeaderSize = 20;  // without options
inline constexpr size_t kIpv6HeaderSize = 40;

// Words as they lie in memory, at any address.
template <typename Word>
inline Word loadWord(const uint8_t* bytes) {
  Word word;
  std::memcpy(&word, bytes, sizeof(word));
  return word;
}

template <typename Word>
inline void storeWord(void* bytes, Word word) {
  std::memcpy(bytes, &word, sizeof(word));
}

// Numbers in network order.
inline uint16_t load16(const uint8_t* bytes) {
  return static_cast<uint16_t>(bytes[0] << 8 | bytes[1]);
}

inline void store16(uint8_t* bytes, uint16_t value) {
  bytes[0] = static_cast<uint8_t>(value >> 8);
  bytes[1] = static_cast<uint8_t>(value);
}

// The bytes behind a frame's start that parsing and rewriting touch: both MACs,
// SNAP, one tag, 60 bytes of IPv4 header, 20 of TCP, and room to spare.
inline constexpr size_t kFrameWindow = 128;

// Bytes from the frame's start to the end of its buffer.
inline size_t bufferBytes(const bess::Packet& packet) {
  return static_cast<size_t>(packet.head_len()) + packet.tailroom();
}

// Whether kFrameWindow bytes from the frame's start on lie in its buffer. What
// is free behind the packet is nearly always enough by itself.
inline bool hasWindow(const bess::Packet& packet) {
  return static_cast<size_t>(packet.tailroom()) >= kFrameWindow ||
         bufferBytes(packet) >= kFrameWindow;
}

// A window of kFrameWindow readable bytes on a packet's frame: the frame
// itself, or, when it starts too near its buffer's end, a copy in `room`,
// filled up with zeros, which lasts until `room` is used again.
inline const uint8_t* frameWindow(const bess::Packet& packet,
                                  uint8_t (&room)[kFrameWindow]) {
  const auto* frame = packet.head_data<const uint8_t*>();
  if (hasWindow(packet)) [[likely]] {
    return frame;
  }
  const size_t available = bufferBytes(packet);
  std::memcpy(room, frame, available);
  std::memset(room + available, 0, kFrameWindow - available);
  return room;
}
