// SPDX-License-Identifier: BSD-3-Clause
//
// The values that stand behind a field or action name. Each function throws
// Refused with `word` as the place and a sentence that says what is wrong.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "switch/flow/match.h"

namespace ofswitch {

// Decimal, 0x hexadecimal, or octal with a leading 0, as in C; no sign.
std::optional<uint64_t> toNumber(std::string_view text);

uint64_t parseNumber(std::string_view text, uint64_t max,
                     std::string_view word);
Masked<uint64_t> parseMaskedNumber(std::string_view text, uint64_t max,
                                   std::string_view word);
uint64_t parseMac(std::string_view text, std::string_view word);
Masked<uint64_t> parseMaskedMac(std::string_view text, std::string_view word);
uint32_t parseIpv4(std::string_view text, std::string_view word);
Masked<uint32_t> parseMaskedIpv4(std::string_view text, std::string_view word);
Masked<Uint128> parseMaskedIpv6(std::string_view text, std::string_view word);

std::string macText(uint64_t mac);
std::string ipv4Text(uint32_t address);
std::string ipv6Text(Uint128 address);

// The length of a mask that is a prefix: ones, then zeros.
std::optional<int> prefixLength(uint32_t mask);
std::optional<int> prefixLength(Uint128 mask);

}  // namespace ofswitch
