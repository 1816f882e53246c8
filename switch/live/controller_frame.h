// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstddef>
#include <cstdint>

namespace ofswitch {

// The frame inside a packet for the controller: the module puts a header in
// front of it and a trailer behind it.
struct ControllerFrame {
  static constexpr uint32_t kHeaderLen = 22;
  static constexpr uint32_t kTrailerLen = 4;

  unsigned reason = 0;
  uint32_t skip = 0;    // bytes in front of the frame
  uint32_t length = 0;  // of the frame
};

// Of a packet of `total` bytes that starts with the `size` bytes at `head`.
inline ControllerFrame controllerFrame(const uint8_t* head, size_t size,
                                       uint32_t total) {
  using Frame = ControllerFrame;
  constexpr int kMarkOffset = 13;
  constexpr uint8_t kMark = 0x31;
  constexpr int kReasonOffset = 17;
  if (size < Frame::kHeaderLen ||
      total < Frame::kHeaderLen + Frame::kTrailerLen ||
      head[kMarkOffset] != kMark) {
    return {0, 0, total};  // there was no room for the header
  }
  return {head[kReasonOffset], Frame::kHeaderLen,
          total - Frame::kHeaderLen - Frame::kTrailerLen};
}

}  // namespace ofswitch
