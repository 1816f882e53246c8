// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace ofswitch {

// The number of single-character changes between two words, a swap of two
// neighbours counting as one.
size_t editDistance(std::string_view a, std::string_view b);

// `, did you mean "nw_dst"?` for the nearest of `known`, or nothing when none
// is near enough to be meant.
std::string suggest(std::string_view word,
                    std::span<const std::string_view> known);

}  // namespace ofswitch
