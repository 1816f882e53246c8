// SPDX-License-Identifier: BSD-3-Clause
#include "switch/flow/tcp_flags.h"

#include <algorithm>
#include <cctype>

#include "switch/flow/numbers.h"
#include "switch/flow/refused.h"
#include "switch/flow/suggest.h"

namespace ofswitch {
namespace {

// By bit number.
constexpr std::string_view kNames[] = {"fin", "syn", "rst", "psh", "ack",
                                       "urg", "ece", "cwr", "ns"};
constexpr uint64_t kAllFlags = 0xfff;
constexpr uint64_t kReadFlags = 0xff;

uint64_t flagBit(std::string_view name, std::string_view word) {
  const auto* found = std::ranges::find(kNames, name);
  if (found == std::end(kNames)) {
    refuse("{}: unknown TCP flag \"{}\"{}", word, name, suggest(name, kNames));
  }
  return uint64_t{1} << (found - std::begin(kNames));
}

Masked<uint64_t> parseSigned(std::string_view text, std::string_view word) {
  Masked<uint64_t> flags;
  while (!text.empty()) {
    const char sign = text[0];
    const size_t end = text.find_first_of("+-", 1);
    const uint64_t bit = flagBit(text.substr(1, end - 1), word);
    if ((flags.mask & bit) != 0) {
      refuse("{}: a flag stands there twice", word);
    }
    flags.mask |= bit;
    if (sign == '+') flags.value |= bit;
    text =
        end == std::string_view::npos ? std::string_view() : text.substr(end);
  }
  return flags;
}

Masked<uint64_t> parseNames(std::string_view text, std::string_view word) {
  Masked<uint64_t> flags{0, kAllFlags};
  size_t begin = 0;
  while (begin <= text.size()) {
    const size_t end = std::min(text.find('|', begin), text.size());
    flags.value |= flagBit(text.substr(begin, end - begin), word);
    begin = end + 1;
  }
  return flags;
}

Masked<uint64_t> parseAny(std::string_view text, std::string_view word) {
  if (text[0] == '+' || text[0] == '-') return parseSigned(text, word);
  if (std::isdigit(static_cast<unsigned char>(text[0])) != 0) {
    return parseMaskedNumber(text, kAllFlags, word);
  }
  return parseNames(text, word);
}

}  // namespace

Masked<uint8_t> parseTcpFlags(std::string_view text, std::string_view word) {
  const Masked<uint64_t> flags = parseAny(text, word);
  if ((flags.mask & ~kReadFlags) != 0) {
    const uint64_t readMask = flags.mask & kReadFlags;
    const std::string instead =
        readMask == 0 ? "leave them out"
                      : fmt::format("write tcp_flags=0x{:02x}/0x{:02x}",
                                    flags.value & kReadFlags, readMask);
    refuse(
        "{}: the module reads the flags fin to cwr, not the four above them; "
        "{}",
        word, instead);
  }
  return {static_cast<uint8_t>(flags.value), static_cast<uint8_t>(flags.mask)};
}

std::string tcpFlagsText(Masked<uint8_t> flags) {
  std::string text;
  for (int bit = 0; bit < 8; bit++) {
    if ((flags.mask >> bit & 1) == 0) continue;
    text += (flags.value >> bit & 1) != 0 ? '+' : '-';
    text += kNames[bit];
  }
  return text;
}

}  // namespace ofswitch
