// SPDX-License-Identifier: BSD-3-Clause
#include "switch/client/message_json.h"

#include <fmt/format.h>
#include <google/protobuf/descriptor.h>

namespace ofswitch {
namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;
using Json = nlohmann::ordered_json;

std::string hex(const std::string& bytes) {
  std::string text;
  for (const char c : bytes) {
    text += fmt::format("{:02x}", static_cast<unsigned char>(c));
  }
  return text;
}

Json textJson(const FieldDescriptor& field, const std::string& text) {
  return field.type() == FieldDescriptor::TYPE_BYTES ? hex(text) : text;
}

Json valueJson(const Message& message, const FieldDescriptor* field) {
  const Reflection& values = *message.GetReflection();
  switch (field->cpp_type()) {
    case FieldDescriptor::CPPTYPE_INT32:
      return values.GetInt32(message, field);
    case FieldDescriptor::CPPTYPE_INT64:
      return values.GetInt64(message, field);
    case FieldDescriptor::CPPTYPE_UINT32:
      return values.GetUInt32(message, field);
    case FieldDescriptor::CPPTYPE_UINT64:
      return values.GetUInt64(message, field);
    case FieldDescriptor::CPPTYPE_DOUBLE:
      return values.GetDouble(message, field);
    case FieldDescriptor::CPPTYPE_FLOAT:
      return values.GetFloat(message, field);
    case FieldDescriptor::CPPTYPE_BOOL:
      return values.GetBool(message, field);
    case FieldDescriptor::CPPTYPE_ENUM:
      return values.GetEnum(message, field)->name();
    case FieldDescriptor::CPPTYPE_STRING:
      return textJson(*field, values.GetString(message, field));
    case FieldDescriptor::CPPTYPE_MESSAGE:
      return messageJson(values.GetMessage(message, field));
  }
  return nullptr;
}

Json elementJson(const Message& message, const FieldDescriptor* field,
                 int index) {
  const Reflection& values = *message.GetReflection();
  switch (field->cpp_type()) {
    case FieldDescriptor::CPPTYPE_INT32:
      return values.GetRepeatedInt32(message, field, index);
    case FieldDescriptor::CPPTYPE_INT64:
      return values.GetRepeatedInt64(message, field, index);
    case FieldDescriptor::CPPTYPE_UINT32:
      return values.GetRepeatedUInt32(message, field, index);
    case FieldDescriptor::CPPTYPE_UINT64:
      return values.GetRepeatedUInt64(message, field, index);
    case FieldDescriptor::CPPTYPE_DOUBLE:
      return values.GetRepeatedDouble(message, field, index);
    case FieldDescriptor::CPPTYPE_FLOAT:
      return values.GetRepeatedFloat(message, field, index);
    case FieldDescriptor::CPPTYPE_BOOL:
      return values.GetRepeatedBool(message, field, index);
    case FieldDescriptor::CPPTYPE_ENUM:
      return values.GetRepeatedEnum(message, field, index)->name();
    case FieldDescriptor::CPPTYPE_STRING:
      return textJson(*field, values.GetRepeatedString(message, field, index));
    case FieldDescriptor::CPPTYPE_MESSAGE:
      return messageJson(values.GetRepeatedMessage(message, field, index));
  }
  return nullptr;
}

// A map with names for keys.
Json mapJson(const Message& message, const FieldDescriptor* field) {
  Json json = Json::object();
  const int size = message.GetReflection()->FieldSize(message, field);
  for (int i = 0; i < size; i++) {
    const Message& entry =
        message.GetReflection()->GetRepeatedMessage(message, field, i);
    const std::string key = entry.GetReflection()->GetString(
        entry, field->message_type()->map_key());
    json[key] = valueJson(entry, field->message_type()->map_value());
  }
  return json;
}

Json listJson(const Message& message, const FieldDescriptor* field) {
  Json json = Json::array();
  const int size = message.GetReflection()->FieldSize(message, field);
  for (int i = 0; i < size; i++) {
    json.push_back(elementJson(message, field, i));
  }
  return json;
}

}  // namespace

Json messageJson(const Message& message) {
  Json json = Json::object();
  const auto* type = message.GetDescriptor();
  for (int i = 0; i < type->field_count(); i++) {
    const FieldDescriptor* field = type->field(i);
    if (field->is_map()) {
      json[field->json_name()] = mapJson(message, field);
    } else if (field->is_repeated()) {
      json[field->json_name()] = listJson(message, field);
    } else if (!field->has_presence() ||
               message.GetReflection()->HasField(message, field)) {
      json[field->json_name()] = valueJson(message, field);
    }
  }
  return json;
}

std::string jsonLine(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string jsonText(const Json& json) {
  return json.dump(2, ' ', false, Json::error_handler_t::replace);
}

}  // namespace ofswitch
