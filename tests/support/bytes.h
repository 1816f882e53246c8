// SPDX-License-Identifier: BSD-3-Clause
//
// Bytes, addresses and numbers in wire order, as tests write and print them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace openflow_test {

using Bytes = std::vector<uint8_t>;
using Mac = std::array<uint8_t, 6>;
using Ip6 = std::array<uint8_t, 16>;

// "00:11:22:33:44:55". Throws std::invalid_argument on anything else.
Mac mac(std::string_view text);

// "10.0.0.1" as a host-order number.
uint32_t ip4(const std::string& text);

Ip6 ip6(const std::string& text);

// "81 00 00 64"; blanks between the digits are ignored.
Bytes fromHex(std::string_view text);

// Lower-case digits without blanks, as other packet tools read them.
std::string hex(const Bytes& bytes);

// Offset and sixteen bytes a line, for a failing test's message.
std::string hexDump(const Bytes& bytes);

inline uint16_t get16(const uint8_t* at) {
  return static_cast<uint16_t>(at[0] << 8 | at[1]);
}

inline uint32_t get32(const uint8_t* at) {
  return static_cast<uint32_t>(get16(at)) << 16 | get16(at + 2);
}

inline void put16(uint8_t* at, uint16_t value) {
  at[0] = static_cast<uint8_t>(value >> 8);
  at[1] = static_cast<uint8_t>(value);
}

inline void put32(uint8_t* at, uint32_t value) {
  put16(at, static_cast<uint16_t>(value >> 16));
  put16(at + 2, static_cast<uint16_t>(value));
}

}  // namespace openflow_test
