// SPDX-License-Identifier: BSD-3-Clause
#include "switch/flow/numbers.h"

#include <arpa/inet.h>

#include <array>
#include <bit>
#include <charconv>

#include "switch/flow/refused.h"

namespace ofswitch {
namespace {

struct Halves {
  std::string_view value;
  std::optional<std::string_view> mask;
};

Halves splitMask(std::string_view text) {
  const size_t slash = text.find('/');
  if (slash == std::string_view::npos) return {text, std::nullopt};
  return {text.substr(0, slash), text.substr(slash + 1)};
}

template <class T>
std::optional<T> fromChars(std::string_view digits, int base) {
  T value{};
  const char* end = digits.data() + digits.size();
  const auto [at, error] = std::from_chars(digits.data(), end, value, base);
  if (digits.empty() || error != std::errc() || at != end) return std::nullopt;
  return value;
}

// "24" as a prefix length of at most `width`; nothing when the text is not a
// plain number (it may be a mask in address form then).
std::optional<int> parsePrefix(std::string_view text, int width,
                               std::string_view word) {
  const auto length = fromChars<unsigned>(text, 10);
  if (!length) return std::nullopt;
  if (*length > static_cast<unsigned>(width)) {
    refuse("{}: a prefix is at most {} bits long", word, width);
  }
  return static_cast<int>(*length);
}

template <class T>
T prefixMask(int length) {
  constexpr int kWidth = sizeof(T) * 8;
  if (length == 0) return 0;
  return static_cast<T>(~T{0}) << (kWidth - length);
}

Uint128 parseIpv6(std::string_view text, std::string_view word) {
  std::array<uint8_t, 16> bytes;
  if (inet_pton(AF_INET6, std::string(text).c_str(), bytes.data()) != 1) {
    refuse("{}: \"{}\" is not an IPv6 address", word, text);
  }
  Uint128 address = 0;
  for (const uint8_t byte : bytes) address = address << 8 | byte;
  return address;
}

}  // namespace

std::optional<uint64_t> toNumber(std::string_view text) {
  if (text.starts_with("0x") || text.starts_with("0X")) {
    return fromChars<uint64_t>(text.substr(2), 16);
  }
  if (text.size() > 1 && text.starts_with("0")) {
    return fromChars<uint64_t>(text, 8);
  }
  return fromChars<uint64_t>(text, 10);
}

uint64_t parseNumber(std::string_view text, uint64_t max,
                     std::string_view word) {
  const std::optional<uint64_t> number = toNumber(text);
  if (!number && text.find('/') != std::string_view::npos) {
    refuse("{}: takes no mask", word);
  }
  if (!number) refuse("{}: \"{}\" is not a number", word, text);
  if (*number > max) refuse("{}: {} is above {}", word, text, max);
  return *number;
}

Masked<uint64_t> parseMaskedNumber(std::string_view text, uint64_t max,
                                   std::string_view word) {
  const auto [value, mask] = splitMask(text);
  Masked<uint64_t> number;
  number.mask = mask ? parseNumber(*mask, max, word) : max;
  number.value = parseNumber(value, max, word) & number.mask;
  return number;
}

uint64_t parseMac(std::string_view text, std::string_view word) {
  uint64_t mac = 0;
  std::string_view rest = text;
  for (int i = 0; i < 6; i++) {
    const size_t colon = rest.find(':');
    const std::string_view part = rest.substr(0, colon);
    const auto byte = part.size() <= 2 ? fromChars<uint8_t>(part, 16)
                                       : std::optional<uint8_t>();
    const bool last = colon == std::string_view::npos;
    if (!byte || last != (i == 5)) {
      refuse("{}: \"{}\" is not a MAC address", word, text);
    }
    mac = mac << 8 | *byte;
    rest = last ? std::string_view() : rest.substr(colon + 1);
  }
  return mac;
}

Masked<uint64_t> parseMaskedMac(std::string_view text, std::string_view word) {
  const auto [value, mask] = splitMask(text);
  Masked<uint64_t> mac;
  mac.mask = mask ? parseMac(*mask, word) : kMacBits;
  mac.value = parseMac(value, word) & mac.mask;
  return mac;
}

uint32_t parseIpv4(std::string_view text, std::string_view word) {
  in_addr address;
  if (inet_pton(AF_INET, std::string(text).c_str(), &address) != 1) {
    refuse("{}: \"{}\" is not an IPv4 address", word, text);
  }
  return ntohl(address.s_addr);
}

Masked<uint32_t> parseMaskedIpv4(std::string_view text, std::string_view word) {
  const auto [value, mask] = splitMask(text);
  Masked<uint32_t> address{parseIpv4(value, word), ~uint32_t{0}};
  if (mask) {
    const auto length = parsePrefix(*mask, 32, word);
    address.mask =
        length ? prefixMask<uint32_t>(*length) : parseIpv4(*mask, word);
  }
  address.value &= address.mask;
  return address;
}

Masked<Uint128> parseMaskedIpv6(std::string_view text, std::string_view word) {
  const auto [value, mask] = splitMask(text);
  Masked<Uint128> address{parseIpv6(value, word), ~Uint128{0}};
  if (mask) {
    const auto length = parsePrefix(*mask, 128, word);
    address.mask =
        length ? prefixMask<Uint128>(*length) : parseIpv6(*mask, word);
  }
  address.value &= address.mask;
  return address;
}

std::string macText(uint64_t mac) {
  const auto byte = [mac](int i) { return mac >> (40 - 8 * i) & 0xff; };
  return fmt::format("{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}", byte(0),
                     byte(1), byte(2), byte(3), byte(4), byte(5));
}

std::string ipv4Text(uint32_t address) {
  return fmt::format("{}.{}.{}.{}", address >> 24, address >> 16 & 0xff,
                     address >> 8 & 0xff, address & 0xff);
}

std::string ipv6Text(Uint128 address) {
  std::array<uint8_t, 16> bytes;
  for (int i = 15; i >= 0; i--, address >>= 8) {
    bytes[i] = static_cast<uint8_t>(address);
  }
  std::array<char, INET6_ADDRSTRLEN> text;
  inet_ntop(AF_INET6, bytes.data(), text.data(), text.size());
  return text.data();
}

std::optional<int> prefixLength(uint32_t mask) {
  const int ones = std::countl_one(mask);
  if (mask != prefixMask<uint32_t>(ones)) return std::nullopt;
  return ones;
}

std::optional<int> prefixLength(Uint128 mask) {
  const int high = std::countl_one(static_cast<uint64_t>(mask >> 64));
  const int low = std::countl_one(static_cast<uint64_t>(mask));
  const int ones = high < 64 ? high : 64 + low;
  if (mask != prefixMask<Uint128>(ones)) return std::nullopt;
  return ones;
}

}  // namespace ofswitch
