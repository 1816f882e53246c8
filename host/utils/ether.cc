// SPDX-License-Identifier: BSD-3-Clause
#include "utils/ether.h"

#include <algorithm>
#include <charconv>
#include <cstring>

namespace bess::utils {

Ethernet::Address::Address(const uint8_t* addr) { memcpy(bytes, addr, kSize); }

Ethernet::Address::Address(const std::string& text) { FromString(text); }

bool Ethernet::Address::FromString(const std::string& text) {
  constexpr size_t kTextSize = 3 * kSize - 1;
  if (text.size() != kTextSize) {
    return false;
  }
  uint8_t parsed[kSize];
  for (size_t i = 0; i < kSize; i++) {
    const char* digits = text.data() + 3 * i;
    const auto [end, error] =
        std::from_chars(digits, digits + 2, parsed[i], 16);
    if (error != std::errc() || end != digits + 2 ||
        (i + 1 < kSize && *end != ':')) {
      return false;
    }
  }
  memcpy(bytes, parsed, kSize);
  return true;
}

std::string Ethernet::Address::ToString() const {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (uint8_t byte : bytes) {
    if (!text.empty()) {
      text += ':';
    }
    text += kDigits[byte >> 4];
    text += kDigits[byte & 0xf];
  }
  return text;
}

bool Ethernet::Address::IsBroadcast() const {
  return std::all_of(bytes, bytes + kSize,
                     [](uint8_t byte) { return byte == 0xff; });
}

bool Ethernet::Address::IsZero() const { return *this == Address(); }

}  // namespace bess::utils
