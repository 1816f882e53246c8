// SPDX-License-Identifier: BSD-3-Clause
#include "switch/client/message_json.h"

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace ofswitch {
namespace {

using google::protobuf::DescriptorPool;
using google::protobuf::DynamicMessageFactory;
using google::protobuf::FieldDescriptorProto;
using google::protobuf::FileDescriptorProto;
using google::protobuf::Message;
using google::protobuf::TextFormat;

struct Kind {
  const char* name;
  FieldDescriptorProto::Type type;
  const char* typeName = "";
};

const Kind kKinds[] = {
    {"int32", FieldDescriptorProto::TYPE_INT32},
    {"int64", FieldDescriptorProto::TYPE_INT64},
    {"uint32", FieldDescriptorProto::TYPE_UINT32},
    {"uint64", FieldDescriptorProto::TYPE_UINT64},
    {"double", FieldDescriptorProto::TYPE_DOUBLE},
    {"float", FieldDescriptorProto::TYPE_FLOAT},
    {"bool", FieldDescriptorProto::TYPE_BOOL},
    {"enum", FieldDescriptorProto::TYPE_ENUM, ".Color"},
    {"text", FieldDescriptorProto::TYPE_STRING},
    {"bytes", FieldDescriptorProto::TYPE_BYTES},
    {"part", FieldDescriptorProto::TYPE_MESSAGE, ".Part"},
};

// A message with a field and a list of every kind, and one optional field.
FileDescriptorProto everyKind() {
  FileDescriptorProto file;
  EXPECT_TRUE(TextFormat::ParseFromString(
      "name: 'every.proto' syntax: 'proto3' "
      "enum_type { name: 'Color' value { name: 'RED' number: 0 } "
      "            value { name: 'BLUE' number: 7 } } "
      "message_type { name: 'Part' field { name: 'two_words' number: 1 "
      "  label: LABEL_OPTIONAL type: TYPE_STRING } } "
      "message_type { name: 'Every' "
      "  field { name: 'maybe' number: 1 label: LABEL_OPTIONAL "
      "          type: TYPE_UINT32 proto3_optional: true oneof_index: 0 } "
      "  oneof_decl { name: '_maybe' } }",
      &file));
  int number = 2;
  for (const auto& [prefix, label] :
       {std::pair("one_", FieldDescriptorProto::LABEL_OPTIONAL),
        std::pair("all_", FieldDescriptorProto::LABEL_REPEATED)}) {
    for (const Kind& kind : kKinds) {
      FieldDescriptorProto* field = file.mutable_message_type(1)->add_field();
      field->set_name(std::string(prefix) + kind.name);
      field->set_number(number++);
      field->set_label(label);
      field->set_type(kind.type);
      if (kind.typeName[0] != '\0') field->set_type_name(kind.typeName);
    }
  }
  return file;
}

class MessageJson : public testing::Test {
 protected:
  MessageJson()
      : type_(pool_.BuildFile(everyKind())->FindMessageTypeByName("Every")),
        message_(factory_.GetPrototype(type_)->New()) {}

  std::string json(const std::string& text) {
    EXPECT_TRUE(TextFormat::ParseFromString(text, message_.get()));
    return jsonLine(messageJson(*message_));
  }

  DescriptorPool pool_;
  DynamicMessageFactory factory_{&pool_};
  const google::protobuf::Descriptor* type_;
  std::unique_ptr<Message> message_;
};

// 64 bits stay numbers: who reads them knows how to.
TEST_F(MessageJson, HasEveryKindOfField) {
  EXPECT_EQ(json("maybe: 0 one_int32: -1 one_int64: -9223372036854775808 "
                 "one_uint32: 4294967295 one_uint64: 18446744073709551615 "
                 "one_double: 0.1 one_float: 0.5 one_bool: true "
                 "one_enum: BLUE one_text: '\"\\303\\244\\n' "
                 "one_bytes: '\\x00\\xff' one_part { two_words: 'x' }"),
            "{\"maybe\":0,\"oneInt32\":-1,\"oneInt64\":-9223372036854775808,"
            "\"oneUint32\":4294967295,\"oneUint64\":18446744073709551615,"
            "\"oneDouble\":0.1,\"oneFloat\":0.5,\"oneBool\":true,"
            "\"oneEnum\":\"BLUE\",\"oneText\":\"\\\"\u00e4\\n\","
            "\"oneBytes\":\"00ff\",\"onePart\":{\"twoWords\":\"x\"},"
            "\"allInt32\":[],\"allInt64\":[],\"allUint32\":[],"
            "\"allUint64\":[],\"allDouble\":[],\"allFloat\":[],"
            "\"allBool\":[],\"allEnum\":[],\"allText\":[],\"allBytes\":[],"
            "\"allPart\":[]}");
}

TEST_F(MessageJson, HasListsOfEveryKind) {
  const auto all = nlohmann::json::parse(
      json("all_int32: [-1, 2] all_int64: [-3, 4] all_uint32: [5] "
           "all_uint64: [18446744073709551615, 0] all_double: [1.5, 2.25] "
           "all_float: [0.5] all_bool: [false, true] all_enum: [BLUE, RED] "
           "all_text: ['', 'a'] all_bytes: ['\\x0f', ''] all_part {} "
           "all_part { two_words: 'b' }"));
  EXPECT_EQ(all["allInt32"].dump(), "[-1,2]");
  EXPECT_EQ(all["allInt64"].dump(), "[-3,4]");
  EXPECT_EQ(all["allUint32"].dump(), "[5]");
  EXPECT_EQ(all["allUint64"].dump(), "[18446744073709551615,0]");
  EXPECT_EQ(all["allDouble"].dump(), "[1.5,2.25]");
  EXPECT_EQ(all["allFloat"].dump(), "[0.5]");
  EXPECT_EQ(all["allBool"].dump(), "[false,true]");
  EXPECT_EQ(all["allEnum"].dump(), "[\"BLUE\",\"RED\"]");
  EXPECT_EQ(all["allText"].dump(), "[\"\",\"a\"]");
  EXPECT_EQ(all["allBytes"].dump(), "[\"0f\",\"\"]");
  EXPECT_EQ(all["allPart"].dump(),
            "[{\"twoWords\":\"\"},{\"twoWords\":\"b\"}]");
}

// What is not there and can tell is left out; what cannot, is 0.
TEST_F(MessageJson, LeavesOutWhatIsNotThere) {
  const auto empty = nlohmann::json::parse(json(""));
  EXPECT_FALSE(empty.contains("maybe"));
  EXPECT_FALSE(empty.contains("onePart"));
  EXPECT_EQ(empty["oneInt32"], 0);
  EXPECT_EQ(empty["oneEnum"], "RED");
  EXPECT_EQ(empty["oneText"], "");
}

TEST(Json, ReplacesWhatIsNoUtf8) {
  const nlohmann::ordered_json json = {{"a", "\xff"}};
  EXPECT_EQ(jsonLine(json), "{\"a\":\"\ufffd\"}");
  EXPECT_EQ(jsonText(json), "{\n  \"a\": \"\ufffd\"\n}");
}

}  // namespace
}  // namespace ofswitch
