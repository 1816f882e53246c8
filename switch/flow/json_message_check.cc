// SPDX-License-Identifier: BSD-3-Clause
#include "switch/flow/json_message_check.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <set>
#include <vector>

#include "switch/flow/json_places.h"
#include "switch/flow/quote.h"
#include "switch/flow/suggest.h"

namespace ofswitch {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::EnumDescriptor;
using google::protobuf::FieldDescriptor;

const FieldDescriptor* findField(const Descriptor& type,
                                 std::string_view name) {
  for (int i = 0; i < type.field_count(); i++) {
    const FieldDescriptor* field = type.field(i);
    if (field->json_name() == name) return field;
  }
  return nullptr;
}

std::string unknownName(const Descriptor& type, std::string_view name) {
  std::vector<std::string_view> names;
  for (int i = 0; i < type.field_count(); i++) {
    names.push_back(type.field(i)->json_name());
  }
  return fmt::format("unknown field \"{}\"{}", cutText(name, 80),
                     suggest(name, names));
}

// Protobuf takes numbers also in quotes, and 1e3 for 1000.
bool isUnsigned(std::string_view json, uint64_t max) {
  if (json.size() > 2 && json.front() == '"') {
    const char* end = json.data() + json.size() - 1;
    uint64_t number = 0;
    const auto [stop, error] = std::from_chars(json.data() + 1, end, number);
    return error == std::errc() && stop == end && number <= max;
  }
  const nlohmann::json value = nlohmann::json::parse(json);
  if (value.is_number_unsigned()) return value.get<uint64_t>() <= max;
  if (!value.is_number_float()) return false;
  const auto number = value.get<double>();
  return number >= 0 && number <= static_cast<double>(max) &&
         std::trunc(number) == number;
}

bool isEnumValue(std::string_view json, const EnumDescriptor& type) {
  const nlohmann::json value = nlohmann::json::parse(json);
  if (value.is_string()) {
    return type.FindValueByName(value.get<std::string>()) != nullptr;
  }
  return value.is_number_integer();
}

std::string enumNames(const EnumDescriptor& type) {
  std::vector<std::string> names;
  for (int i = 0; i < type.value_count(); i++) {
    names.push_back(type.value(i)->name());
  }
  return fmt::format("{}", fmt::join(names, ", "));
}

// Letters that stand for bytes; how many there are is protobuf's to judge.
bool isBase64(std::string_view json) {
  constexpr std::string_view kMarks = "+/-_=";
  return json.front() == '"' &&
         std::all_of(json.begin() + 1, json.end() - 1, [&](char c) {
           return std::isalnum(static_cast<unsigned char>(c)) != 0 ||
                  kMarks.find(c) != std::string_view::npos;
         });
}

class Checker {
 public:
  std::optional<JsonMistake> message(std::string_view json,
                                     const Descriptor& type,
                                     const std::string& path) {
    if (json.front() != '{') return wrong(json, path, "must be an object");
    std::set<const FieldDescriptor*> seen;
    for (const auto& [name, value] : jsonMembers(json)) {
      const FieldDescriptor* field = findField(type, name);
      if (field == nullptr) {
        return JsonMistake{name, before(path) + unknownName(type, name)};
      }
      const std::string here =
          path.empty() ? std::string(name) : fmt::format("{}.{}", path, name);
      if (!seen.insert(field).second) {
        return JsonMistake{name, here + ": stands there twice"};
      }
      if (auto mistake = member(value, *field, here)) return mistake;
    }
    return std::nullopt;
  }

 private:
  std::optional<JsonMistake> member(std::string_view json,
                                    const FieldDescriptor& field,
                                    const std::string& path) {
    if (json == "null") return std::nullopt;  // as if it was not there
    if (!field.is_repeated()) return value(json, field, path);
    if (json.front() != '[') return wrong(json, path, "must be an array");
    size_t index = 0;
    for (const std::string_view element : jsonElements(json)) {
      auto mistake = value(element, field, fmt::format("{}[{}]", path, index));
      if (mistake) return mistake;
      index++;
    }
    return std::nullopt;
  }

  std::optional<JsonMistake> value(std::string_view json,
                                   const FieldDescriptor& field,
                                   const std::string& path) {
    switch (field.type()) {
      case FieldDescriptor::TYPE_MESSAGE:
        return message(json, *field.message_type(), path);
      case FieldDescriptor::TYPE_BOOL:
        if (json == "true" || json == "false") return std::nullopt;
        return wrong(json, path, "must be true or false");
      case FieldDescriptor::TYPE_UINT32:
        return number(json, path, std::numeric_limits<uint32_t>::max());
      case FieldDescriptor::TYPE_UINT64:
        return number(json, path, std::numeric_limits<uint64_t>::max());
      case FieldDescriptor::TYPE_ENUM:
        if (isEnumValue(json, *field.enum_type())) return std::nullopt;
        return wrong(json, path,
                     "must be one of " + enumNames(*field.enum_type()));
      case FieldDescriptor::TYPE_BYTES:
        if (isBase64(json)) return std::nullopt;
        return wrong(json, path, "must be bytes in base64");
      default:
        return std::nullopt;
    }
  }

  static std::optional<JsonMistake> number(std::string_view json,
                                           const std::string& path,
                                           uint64_t max) {
    if (isUnsigned(json, max)) return std::nullopt;
    return wrong(json, path, fmt::format("must be a number from 0 to {}", max));
  }

  static std::string before(const std::string& path) {
    return path.empty() ? "" : path + ": ";
  }

  static JsonMistake wrong(std::string_view json, const std::string& path,
                           const std::string& what) {
    // Lists and objects may be long, and where they begin says enough.
    const bool isShort = json.front() != '{' && json.front() != '[';
    const std::string found = isShort ? cutText(json, 40) + " " : "";
    return {json, before(path) + found + what};
  }
};

}  // namespace

std::optional<JsonMistake> findMistake(std::string_view json,
                                       const Descriptor& type) {
  return Checker().message(json, type, "");
}

}  // namespace ofswitch
