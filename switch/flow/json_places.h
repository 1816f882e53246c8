// SPDX-License-Identifier: BSD-3-Clause
//
// Where things stand in a JSON text. Parsers give values without places; a
// refusal needs the line. Every view lies in the text it was found in.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ofswitch {

struct JsonError {
  size_t offset;
  std::string reason;
};

// Nothing for well-formed JSON. The functions below take well-formed JSON
// only.
std::optional<JsonError> findJsonError(std::string_view text);

// The values of an array, the members of an object (keys as written, without
// quotes). Empty for a value of another kind.
std::vector<std::string_view> jsonElements(std::string_view array);
std::vector<std::pair<std::string_view, std::string_view>> jsonMembers(
    std::string_view object);

// The value of one member, or nothing.
std::optional<std::string_view> jsonMember(std::string_view object,
                                           std::string_view key);

}  // namespace ofswitch
