// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <google/protobuf/message.h>

#include <nlohmann/json.hpp>
#include <string>

namespace ofswitch {

// A message as the --json of commands has it: all its fields under the names
// of protobuf's JSON mapping, in their order. Other than there, fields that are
// 0 are not left out, 64-bit numbers are numbers, and bytes are hexadecimal.
// Of optional fields and of alternatives only those that are set.
nlohmann::ordered_json messageJson(const google::protobuf::Message& message);

// As text without a line end; what is not UTF-8 in it is replaced. On one line
// or indented.
std::string jsonLine(const nlohmann::ordered_json& json);
std::string jsonText(const nlohmann::ordered_json& json);

}  // namespace ofswitch
