// SPDX-License-Identifier: BSD-3-Clause
//
// Numbers, names and bytes in JSON, as protobuf takes them.
#include <gmock/gmock.h>
#include <google/protobuf/any.pb.h>
#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "switch/flow/command_list.h"
#include "switch/flow/json_message_check.h"
#include "switch/flow/json_places.h"
#include "tests/switch/flow_texts.h"

namespace ofswitch {
namespace {

using Update = quil::pb::OpenFlowUpdateFlowsArg;

CommandList readUpdate(const std::string& members) {
  return CommandListReader().read("[{\"updateFlows\": {" + members + "}}]",
                                  "c.json");
}

struct Row {
  const char* json;
  const char* text;  // the message that it says
};

void PrintTo(const Row& row, std::ostream* out) { *out << row.json; }

const Row kTaken[] = {
    {"\"tableId\": 31", "tableId:31"},
    {"\"tableId\": \"7\"", "tableId:7"},
    {"\"tableId\": 1e1", "tableId:10"},
    {"\"tableId\": 7.0", "tableId:7"},
    {"\"tableId\": null", ""},
    {"\"adds\": null", ""},
    {"\"adds\": [{}]", "adds{}"},
    {"\"flowType\": 1", "flowType:OPENFLOW_TYPE_IPV6"},
    {"\"flowType\": \"OPENFLOW_TYPE_IPV6\"", "flowType:OPENFLOW_TYPE_IPV6"},
    {"\"deletes\": [{\"flowId\": 4294967295}]", "deletes{flowId:4294967295}"},
    {"\"deletes\": [{\"flowId\": 4294967295.0}]", "deletes{flowId:4294967295}"},
    {"\"deletes\": [{\"flowId\": 0.0}]", "deletes{}"},
    {"\"deletes\": [{\"flowId\": \"4294967295\"}]",
     "deletes{flowId:4294967295}"},
    {"\"adds\": [{\"match\": {\"fields\": {\"metadata\": false, \"ethSrc\": "
     "null}, \"values\": {\"metadata\": 18446744073709551615}}}]",
     "adds{match{fields{} values{metadata:18446744073709551615}}}"},
    {"\"adds\": [{\"match\": {\"values\": {\"ethDst\": \"+/+/\"}}}]",
     "adds{match{values{ethDst:'\\xfb\\xff\\xbf'}}}"},
    {"\"adds\": [{\"match\": {\"values\": {\"ethDst\": \"-_-_\"}}}]",
     "adds{match{values{ethDst:'\\xfb\\xff\\xbf'}}}"},
};

class TakenJson : public testing::TestWithParam<Row> {};

TEST_P(TakenJson, SaysTheMessage) {
  const CommandList list = readUpdate(GetParam().json);
  ASSERT_TRUE(list.ok()) << list.refusals[0].text();
  ASSERT_THAT(list.commands, testing::SizeIs(1));
  EXPECT_TRUE(
      isMessage(std::get<Update>(list.commands[0].argument), GetParam().text));
}

INSTANTIATE_TEST_SUITE_P(Values, TakenJson, testing::ValuesIn(kTaken));

const Row kRefused[] = {
    {"\"tableId\": -1", "tableId: -1 must be a number from 0 to 4294967295"},
    {"\"tableId\": -1.0",
     "tableId: -1.0 must be a number from 0 to 4294967295"},
    {"\"tableId\": -1.5",
     "tableId: -1.5 must be a number from 0 to 4294967295"},
    {"\"tableId\": 1e30",
     "tableId: 1e30 must be a number from 0 to 4294967295"},
    {"\"tableId\": 4294967296.0",
     "tableId: 4294967296.0 must be a number from 0 to 4294967295"},
    {"\"tableId\": 0.5", "tableId: 0.5 must be a number from 0 to 4294967295"},
    {"\"tableId\": true",
     "tableId: true must be a number from 0 to 4294967295"},
    {"\"tableId\": \"\"",
     "tableId: \"\" must be a number from 0 to 4294967295"},
    {"\"tableId\": \"7x\"",
     "tableId: \"7x\" must be a number from 0 to 4294967295"},
    {"\"tableId\": \"4294967296\"",
     "tableId: \"4294967296\" must be a number from 0 to 4294967295"},
    {"\"tableId\": \"18446744073709551616\"",
     "tableId: \"18446744073709551616\" must be a number from 0 to "
     "4294967295"},
    {"\"tableId\": \"40 characters with quotes at both ends\"",
     "tableId: \"40 characters with quotes at both ends\" must be a number "
     "from 0 to 4294967295"},
    {"\"tableId\": \"41 characters, with quotes at both ends\"",
     "tableId: \"41 characters, with quotes at both ends... must be a number "
     "from 0 to 4294967295"},
    {"\"flowType\": 1.5",
     "flowType: 1.5 must be one of OPENFLOW_TYPE_IPV4, OPENFLOW_TYPE_IPV6"},
    {"\"flowType\": true",
     "flowType: true must be one of OPENFLOW_TYPE_IPV4, OPENFLOW_TYPE_IPV6"},
    {"\"adds\": [null]", "adds[0]: null must be an object"},
    {"\"adds\": [{\"match\": {\"values\": {\"ethDst\": 5}}}]",
     "adds[0].match.values.ethDst: 5 must be bytes in base64"},
    {"\"adds\": [{\"match\": {\"values\": {\"ethDst\": \"a b\"}}}]",
     "adds[0].match.values.ethDst: \"a b\" must be bytes in base64"},
    {"\"adds\": [{\"match\": {\"fields\": {\"ethDst\": \"true\"}}}]",
     "adds[0].match.fields.ethDst: \"true\" must be true or false"},
};

class RefusedJson : public testing::TestWithParam<Row> {};

TEST_P(RefusedJson, SaysWhatWouldBeRight) {
  const CommandList list = readUpdate(GetParam().json);
  ASSERT_THAT(list.refusals, testing::SizeIs(1));
  EXPECT_EQ(list.refusals[0].reason,
            std::string("command 0: updateFlows: ") + GetParam().text);
  EXPECT_THAT(list.commands, testing::IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Values, RefusedJson, testing::ValuesIn(kRefused));

// Lengths of what a match and an action compare and write.
TEST(CommandJson, SaysHowManyBytesThereMustBe) {
  struct Bytes {
    const char* part;
    const char* flag;
    const char* field;
    const char* fields;  // those that are right, with an opening brace
    const char* length;
  };
  const char* const kMac = "AgAAAAAB";
  const char* const kIpv6 = "AAAAAAAAAAAAAAAAAAAAAA==";
  const Bytes kBytes[] = {
      {"match", "ethSrc", "ethSrc", "", "6"},
      {"match", "ethSrc", "ethSrcMask", "\"ethSrc\": \"MAC\", ", "6"},
      {"match", "ethDst", "ethDst", "", "6"},
      {"match", "ethDst", "ethDstMask", "\"ethDst\": \"MAC\", ", "6"},
      {"match", "ipv6Src", "ipv6Src", "", "16"},
      {"match", "ipv6Src", "ipv6SrcMask", "\"ipv6Src\": \"IP\", ", "16"},
      {"match", "ipv6Dst", "ipv6Dst", "", "16"},
      {"match", "ipv6Dst", "ipv6DstMask", "\"ipv6Dst\": \"IP\", ", "16"},
      {"action", "setEthSrc", "ethSrc", "", "6"},
      {"action", "setEthDst", "ethDst", "", "6"},
  };
  for (const Bytes& row : kBytes) {
    std::string text = std::string("\"adds\": [{\"") + row.part +
                       "\": {\"fields\": {\"" + row.flag +
                       "\": true}, \"values\": {" + row.fields + "\"" +
                       row.field + "\": \"AAAA\"}}}]";
    for (const auto& [word, bytes] :
         {std::pair("\"MAC\"", kMac), std::pair("\"IP\"", kIpv6)}) {
      if (const size_t at = text.find(word); at != std::string::npos) {
        text.replace(at + 1, std::string(word).size() - 2, bytes);
      }
    }
    const CommandList list = readUpdate(text);
    ASSERT_THAT(list.refusals, testing::SizeIs(1)) << text;
    EXPECT_EQ(list.refusals[0].reason,
              std::string("command 0: updateFlows: adds[0].") + row.part +
                  ".values." + row.field + ": 3 bytes, must be " + row.length);
  }
}

// How many letters stand for bytes is protobuf's to judge.
TEST(CommandJson, LeavesTheLengthOfBytesToProtobuf) {
  const CommandList list =
      readUpdate("\"adds\": [{\"match\": {\"values\": {\"ethDst\": \"A\"}}}]");
  ASSERT_THAT(list.refusals, testing::SizeIs(1));
  EXPECT_THAT(list.refusals[0].text(),
              testing::AllOf(
                  testing::StartsWith("c.json:1:2: command 0: updateFlows: "),
                  testing::HasSubstr("ethDst"), testing::HasSubstr("\"A\"")));
}

// Commands have none of these.
TEST(CommandJson, LeavesOtherKindsOfFieldsToProtobuf) {
  EXPECT_FALSE(
      findMistake("{\"typeUrl\": 7}", *google::protobuf::Any::descriptor()));
  const auto mistake =
      findMistake("{\"value\": 7}", *google::protobuf::Any::descriptor());
  ASSERT_TRUE(mistake);
  EXPECT_EQ(mistake->reason, "value: 7 must be bytes in base64");
}

TEST(CommandJson, KnowsPlacesBehindRefusedFlows) {
  const CommandList list = CommandListReader().read(
      "[\n{\"updateFlows\": {\"adds\": [{},\n {\"priority\": 900000000},\n"
      " {\"byteCounterId\": 9000000}]}},\n{\"getStats\": {}},\n7]",
      "c.json");
  ASSERT_THAT(list.refusals, testing::SizeIs(3));
  EXPECT_EQ(list.refusals[0].text(),
            "c.json:3:2: command 0: updateFlows: adds[1].priority: 900000000 "
            "is above 536870911");
  EXPECT_EQ(list.refusals[1].text(),
            "c.json:4:2: command 0: updateFlows: adds[2].byteCounterId: "
            "9000000 is above 8388607");
  EXPECT_EQ(list.refusals[2].line, 6);
  ASSERT_THAT(list.commands, testing::SizeIs(1));
  EXPECT_EQ(list.commands[0].line, 5);
}

TEST(JsonPlaces, FindsNothingInWhatIsNoList) {
  EXPECT_THAT(jsonElements(""), testing::IsEmpty());
  EXPECT_THAT(jsonElements("  "), testing::IsEmpty());
  EXPECT_THAT(jsonElements("7"), testing::IsEmpty());
  EXPECT_THAT(jsonMembers(""), testing::IsEmpty());
  EXPECT_THAT(jsonMembers(" 7"), testing::IsEmpty());
  EXPECT_FALSE(findJsonError("null"));
  EXPECT_FALSE(findJsonError("[-1, -2]"));
}

}  // namespace
}  // namespace ofswitch
