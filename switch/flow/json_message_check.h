// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <google/protobuf/descriptor.h>

#include <optional>
#include <string>
#include <string_view>

namespace ofswitch {

struct JsonMistake {
  std::string_view part;  // of the text
  std::string reason;
};

// What keeps `json`, a JSON value, from being a message of the type: a name
// that no field has, a value of another kind. The first of these in the text;
// protobuf itself tells neither where nor, to a person, what.
std::optional<JsonMistake> findMistake(
    std::string_view json, const google::protobuf::Descriptor& type);

}  // namespace ofswitch
