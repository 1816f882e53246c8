// SPDX-License-Identifier: BSD-3-Clause
#include "tests/support/bytes.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <stdexcept>

namespace openflow_test {
namespace {

unsigned hexDigit(char c) {
  if (c >= '0' && c <= '9') return static_cast<unsigned>(c - '0');
  const char lower = static_cast<char>(std::tolower(c));
  if (lower >= 'a' && lower <= 'f')
    return static_cast<unsigned>(lower - 'a') + 10;
  throw std::invalid_argument(fmt::format("not a hexadecimal digit: '{}'", c));
}

}  // namespace

Mac mac(std::string_view text) {
  std::string digits(text);
  std::erase(digits, ':');
  const Bytes bytes = fromHex(digits);
  Mac address;
  if (bytes.size() != address.size()) {
    throw std::invalid_argument(fmt::format("not a MAC address: {}", text));
  }
  std::copy(bytes.begin(), bytes.end(), address.begin());
  return address;
}

uint32_t ip4(const std::string& text) {
  in_addr address;
  if (inet_pton(AF_INET, text.c_str(), &address) != 1) {
    throw std::invalid_argument(fmt::format("not an IPv4 address: {}", text));
  }
  return ntohl(address.s_addr);
}

Ip6 ip6(const std::string& text) {
  Ip6 address;
  if (inet_pton(AF_INET6, text.c_str(), address.data()) != 1) {
    throw std::invalid_argument(fmt::format("not an IPv6 address: {}", text));
  }
  return address;
}

Bytes fromHex(std::string_view text) {
  std::string digits(text);
  std::erase_if(digits, [](unsigned char c) { return std::isspace(c) != 0; });
  if (digits.size() % 2 != 0) {
    throw std::invalid_argument(
        fmt::format("half a byte at the end: {}", text));
  }
  Bytes bytes;
  for (size_t i = 0; i < digits.size(); i += 2) {
    bytes.push_back(static_cast<uint8_t>(hexDigit(digits[i]) << 4 |
                                         hexDigit(digits[i + 1])));
  }
  return bytes;
}

std::string hex(const Bytes& bytes) {
  return fmt::format("{:02x}", fmt::join(bytes, ""));
}

std::string hexDump(const Bytes& bytes) {
  std::string text;
  for (size_t i = 0; i < bytes.size(); i += 16) {
    const size_t end = std::min(i + 16, bytes.size());
    text += fmt::format("  {:04x}  {:02x}\n", i,
                        fmt::join(bytes.begin() + static_cast<long>(i),
                                  bytes.begin() + static_cast<long>(end), " "));
  }
  return text;
}

}  // namespace openflow_test
