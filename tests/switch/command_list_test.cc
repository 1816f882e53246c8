// SPDX-License-Identifier: BSD-3-Clause
#include "switch/flow/command_list.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "switch/flow/json_places.h"
#include "tests/captures/capture_files.h"
#include "tests/switch/flow_texts.h"

namespace ofswitch {
namespace {

TEST(CommandList, ReadsTheThreeCommands) {
  const CommandList list = CommandListReader().read(
      R"([
  {"setAclIds": {"tableId": 3, "aclId": 100, "ipv6AclId": 101}},
  {"updateFlows": {
     "tableId": 3, "flowType": "OPENFLOW_TYPE_IPV6",
     "adds": [{"flowId": 1, "priority": 10, "packetCounterId": 5,
               "match": {"fields": {"ethDst": true, "metadata": true},
                         "values": {"ethDst": "AgAAAAAB",
                                    "ethDstMask": "////////",
                                    "metadata": "1311768467463790320"}},
               "action": {"fields": {"gotoTbl": true, "setOutputAll": true},
                          "values": {"nextTbl": 4, "ogate": [0, 8191]}}}],
     "deletes": [{"flowId": 7}]}},

  {"getStats": {}}
])",
      "commands.json");
  ASSERT_TRUE(list.ok()) << list.refusals[0].text();
  ASSERT_EQ(list.commands.size(), 3u);
  EXPECT_STREQ(list.commands[0].name(), "setAclIds");
  EXPECT_EQ(list.commands[0].line, 2);
  EXPECT_TRUE(
      isMessage(std::get<quil::pb::OpenFlowAclArg>(list.commands[0].argument),
                "tableId:3 aclId:100 ipv6AclId:101"));
  EXPECT_STREQ(list.commands[1].name(), "updateFlows");
  EXPECT_EQ(list.commands[1].line, 3);
  EXPECT_TRUE(isMessage(
      std::get<quil::pb::OpenFlowUpdateFlowsArg>(list.commands[1].argument),
      "tableId:3 flowType:OPENFLOW_TYPE_IPV6 adds{flowId:1 priority:10 "
      "packetCounterId:5 match{fields{ethDst:true metadata:true} "
      "values{ethDst:'\\x02\\0\\0\\0\\0\\x01' "
      "ethDstMask:'\\xff\\xff\\xff\\xff\\xff\\xff' "
      "metadata:0x123456789abcdef0}} "
      "action{fields{gotoTbl:true setOutputAll:true} "
      "values{nextTbl:4 ogate:[0,8191]}}} deletes{flowId:7}"));
  EXPECT_STREQ(list.commands[2].name(), "getStats");
  EXPECT_EQ(list.commands[2].line, 14);
  EXPECT_EQ(list.commands[2].message().GetDescriptor()->name(),
            "OpenFlowGetStatsArg");
}

TEST(CommandList, MayBeEmpty) {
  const CommandList list = CommandListReader().read(" [ ] ", "c.json");
  EXPECT_TRUE(list.ok());
  EXPECT_TRUE(list.commands.empty());
}

TEST(CommandList, NamesAFileThatItCannotOpen) {
  const CommandList list = CommandListReader().read("/nonexistent/c.json");
  ASSERT_EQ(list.refusals.size(), 1u);
  EXPECT_EQ(list.refusals[0].text(),
            "/nonexistent/c.json: cannot open: No such file or directory");
}

TEST(CommandList, NamesAFolderThatItCannotRead) {
  const CommandList list = CommandListReader().read("/tmp");
  ASSERT_EQ(list.refusals.size(), 1u);
  EXPECT_EQ(list.refusals[0].text(), "/tmp: cannot be read: Is a directory");
}

// Programs write all of it in one line.
TEST(CommandList, MayBeALongLine) {
  const openflow_test::ScratchDir dir;
  std::string text = "[{\"getStats\": {}}";
  while (text.size() < (size_t{3} << 20)) text += ", {\"getStats\": {}}";
  openflow_test::writeFile(dir / "c.json", text + "]");
  const CommandList list = CommandListReader().read(dir / "c.json");
  EXPECT_TRUE(list.ok()) << list.refusals[0].text();
  EXPECT_GT(list.commands.size(), 100'000u);
}

TEST(CommandList, ReservesItsNumbers) {
  const CommandList list = CommandListReader().read(
      R"([{"updateFlows": {"adds": [
           {"flowId": 1, "packetCounterId": 1, "byteCounterId": 40}]}}])",
      "c.json");
  IdAllocator ids;
  reserveIds(list, &ids);
  EXPECT_EQ(ids.takeFlowId(), 2u);
  EXPECT_EQ(ids.takeCounter(), 2u);
  EXPECT_EQ(ids.numCounters(), 41u);
}

struct RefusalCase {
  const char* text;
  const char* refusal;  // of the file c.json
};

void PrintTo(const RefusalCase& row, std::ostream* out) { *out << row.text; }

const RefusalCase kCases[] = {
    // The text.
    {"", "1:1: not JSON: the text ends too early"},
    {"[\n {\"getStats\": {},\n}]", "3:1: not JSON: unexpected \"}\""},
    {"[1, 2", "1:6: not JSON: the text ends too early"},
    {"[1]\n\n?", "3:1: not JSON: unexpected \"?\""},
    {"[\"\xff\"]", "1:3: not JSON: unexpected \"\xff\""},
    {"{}", "1:1: a command list is an array: [...]"},
    {"[\n\n7]",
     "3:1: command 0: write an object of one member, updateFlows, setAclIds or "
     "getStats"},
    {"[{\"getStats\": {}, \"setAclIds\": {}}]",
     "1:2: command 0: write an object of one member, updateFlows, setAclIds or "
     "getStats"},
    {"[{\"getStats\": {}},\n{\"getStat\": {}}]",
     "2:1: command 1: unknown command \"getStat\", did you mean \"getStats\"?"},
    {"[{\"updateFlows\": {\"table\": 3}}]",
     "1:20: command 0: updateFlows: unknown field \"table\", did you mean "
     "\"tableId\"?"},
    {"[{\"getStats\": {\"tabelId\": 3}}]",
     "1:17: command 0: getStats: unknown field \"tabelId\", did you mean "
     "\"tableId\"?"},
    {"[{\"updateFlows\": 3}]",
     "1:18: command 0: updateFlows: 3 must be an object"},
    {"[\n {\"updateFlows\":\n  {\"tableId\": \"x\"}}]",
     "3:15: command 0: updateFlows: tableId: \"x\" must be a number from 0 to "
     "4294967295"},
    {"[{\"updateFlows\": {\"tableId\": 4294967296}}]",
     "1:30: command 0: updateFlows: tableId: 4294967296 must be a number from "
     "0 "
     "to 4294967295"},
    {"[{\"updateFlows\": {\"tableId\": 1.5}}]",
     "1:30: command 0: updateFlows: tableId: 1.5 must be a number from 0 to "
     "4294967295"},
    {"[{\"updateFlows\": {\"tableId\": [1]}}]",
     "1:30: command 0: updateFlows: tableId: must be a number from 0 to "
     "4294967295"},
    {"[{\"updateFlows\": {\"tableId\": 1, \"tableId\": 2}}]",
     "1:34: command 0: updateFlows: tableId: stands there twice"},
    {"[{\"updateFlows\": {\"flowType\": \"IPV6\"}}]",
     "1:31: command 0: updateFlows: flowType: \"IPV6\" must be one of "
     "OPENFLOW_TYPE_IPV4, OPENFLOW_TYPE_IPV6"},
    {"[{\"updateFlows\": {\"adds\": {}}}]",
     "1:27: command 0: updateFlows: adds: must be an array"},
    {"[{\"updateFlows\": {\"adds\": [{}, 3]}}]",
     "1:32: command 0: updateFlows: adds[1]: 3 must be an object"},
    {"[{\"updateFlows\": {\"adds\": [{\"match\": {\"fooo\": 1}}]}}]",
     "1:40: command 0: updateFlows: adds[0].match: unknown field \"fooo\""},
    {"[{\"updateFlows\": {\"adds\": [{\"action\": {\"fields\": "
     "{\"setOutputPort\": 7}}}]}}]",
     "1:68: command 0: updateFlows: adds[0].action.fields.setOutputPort: 7 "
     "must be true or false"},
    {"[{\"updateFlows\": {\"adds\": [{\"action\": {\"values\": "
     "{\"ethSrc\": \"zz!\"}}}]}}]",
     "1:61: command 0: updateFlows: adds[0].action.values.ethSrc: \"zz!\" must "
     "be bytes in base64"},
    // Tables and slots.
    {"[{\"getStats\": {\"tableId\": 32}}]",
     "1:2: command 0: getStats: tableId: 32 must be below 32"},
    {"[{\"setAclIds\": {\"tableId\": 32}}]",
     "1:2: command 0: setAclIds: tableId: 32 must be below 32"},
    {"[{\"updateFlows\": {\"tableId\": 4000000000}}]",
     "1:2: command 0: updateFlows: tableId: 4000000000 must be below 32"},
    {"[{\"setAclIds\": {\"tableId\": 1, \"aclId\": 65536, "
     "\"ipv6AclId\": 100}}]",
     "1:2: command 0: setAclIds: aclId: 65536 must be below 65536"},
    {"[{\"setAclIds\": {\"tableId\": 1, \"aclId\": 100, "
     "\"ipv6AclId\": 70000}}]",
     "1:2: command 0: setAclIds: ipv6AclId: 70000 must be below 65536"},
    {"[{\"setAclIds\": {\"tableId\": 1, \"aclId\": 100, "
     "\"ipv6AclId\": 100}}]",
     "1:2: command 0: setAclIds: ipv6AclId: slot 100 is the table's aclId too"},
    {"[{\"setAclIds\": {\"tableId\": 1, \"aclId\": 2, \"ipv6AclId\": 9}}]",
     "1:2: command 0: setAclIds: ipv6AclId: slot 9 belongs to table 4"},
    {"[{\"setAclIds\": {\"tableId\": 1, \"aclId\": 100, \"ipv6AclId\": 101}},"
     "\n{\"setAclIds\": {\"tableId\": 2, \"aclId\": 101, \"ipv6AclId\": 5}}]",
     "2:1: command 1: setAclIds: aclId: slot 101 belongs to table 1"},
    // Flows.
    {"[{\"updateFlows\": {\"flowType\": 7}}]",
     "1:2: command 0: updateFlows: flowType: 7 is neither 0 "
     "(OPENFLOW_TYPE_IPV4) nor 1 (OPENFLOW_TYPE_IPV6)"},
    {"[{\"updateFlows\": {\"adds\": [{},\n{\"priority\": 536870912}]}}]",
     "2:1: command 0: updateFlows: adds[1].priority: 536870912 is above "
     "536870911"},
    {"[{\"updateFlows\": {\"adds\": [{\"packetCounterId\": 8388608}]}}]",
     "1:28: command 0: updateFlows: adds[0].packetCounterId: 8388608 is above "
     "8388607"},
    {"[{\"updateFlows\": {\"adds\": [{\"byteCounterId\": 4294967295}]}}]",
     "1:28: command 0: updateFlows: adds[0].byteCounterId: 4294967295 is above "
     "8388607"},
    {"[{\"updateFlows\": {\"adds\": [{\"match\": {\"fields\": "
     "{\"ethDst\": true}}}]}}]",
     "1:28: command 0: updateFlows: adds[0].match.values.ethDst: 0 bytes, must "
     "be 6"},
    {"[{\"updateFlows\": {\"adds\": [{\"match\": {\"fields\": "
     "{\"ethDst\": true}, \"values\": {\"ethDst\": \"AgAAAAAB\"}}}]}}]",
     "1:28: command 0: updateFlows: adds[0].match.values.ethDstMask: 0 bytes, "
     "must be 6"},
    {"[{\"updateFlows\": {\"adds\": [{\"match\": {\"fields\": "
     "{\"ethSrc\": true}, \"values\": {\"ethSrc\": \"AgAAAAABAA==\"}}}]}}]",
     "1:28: command 0: updateFlows: adds[0].match.values.ethSrc: 7 bytes, must "
     "be 6"},
    {"[{\"updateFlows\": {\"adds\": [{\"match\": {\"fields\": "
     "{\"ipv6Src\": true}, \"values\": {\"ipv6Src\": \"AgAAAAAB\"}}}]}}]",
     "1:28: command 0: updateFlows: adds[0].match.values.ipv6Src: 6 bytes, "
     "must "
     "be 16"},
    {"[{\"updateFlows\": {\"adds\": [{\"match\": {\"fields\": "
     "{\"ipv6Dst\": true}, \"values\": {\"ipv6Dst\": "
     "\"AAAAAAAAAAAAAAAAAAAAAA==\"}}}]}}]",
     "1:28: command 0: updateFlows: adds[0].match.values.ipv6DstMask: 0 bytes, "
     "must be 16"},
    {"[{\"updateFlows\": {\"adds\": [{\"match\": {\"values\": "
     "{\"ethType\": 65536}}}]}}]",
     "1:28: command 0: updateFlows: adds[0].match.values.ethType: 65536 is "
     "above 65535"},
    {"[{\"updateFlows\": {\"adds\": [{\"match\": {\"values\": "
     "{\"vlanPcp\": 8}}}]}}]",
     "1:28: command 0: updateFlows: adds[0].match.values.vlanPcp: 8 is above "
     "7"},
    {"[{\"updateFlows\": {\"adds\": [{\"match\": {\"values\": "
     "{\"tcpFlags\": 256}}}]}}]",
     "1:28: command 0: updateFlows: adds[0].match.values.tcpFlags: 256 is "
     "above "
     "255"},
    {"[{\"updateFlows\": {\"adds\": [{\"action\": {\"fields\": "
     "{\"setEthSrc\": true}}}]}}]",
     "1:28: command 0: updateFlows: adds[0].action.values.ethSrc: 0 bytes, "
     "must "
     "be 6"},
    {"[{\"updateFlows\": {\"adds\": [{\"action\": {\"values\": "
     "{\"vlanVid\": 70000}}}]}}]",
     "1:28: command 0: updateFlows: adds[0].action.values.vlanVid: 70000 is "
     "above 65535"},
    {"[{\"updateFlows\": {\"adds\": [{\"action\": {\"values\": "
     "{\"ogate\": [1, 8192]}}}]}}]",
     "1:28: command 0: updateFlows: adds[0].action.values.ogate[1]: 8192 is "
     "above 8191"},
    {"[{\"updateFlows\": {\"tableId\": 3, \"adds\": [{\"action\": "
     "{\"fields\": {\"gotoTbl\": true}, \"values\": {\"nextTbl\": 3}}}]}}]",
     "1:42: command 0: updateFlows: adds[0].action.values.nextTbl: 3 must be "
     "above tableId 3 and below 32"},
    {"[{\"updateFlows\": {\"tableId\": 3, \"adds\": [{\"action\": "
     "{\"fields\": {\"gotoTbl\": true}, \"values\": {\"nextTbl\": 260}}}]}}]",
     "1:42: command 0: updateFlows: adds[0].action.values.nextTbl: 260 must be "
     "above tableId 3 and below 32"},
};

class CommandRefusal : public testing::TestWithParam<RefusalCase> {};

TEST_P(CommandRefusal, NamesPlaceAndReason) {
  const CommandList list = CommandListReader().read(GetParam().text, "c.json");
  ASSERT_EQ(list.refusals.size(), 1u);
  EXPECT_EQ(list.refusals[0].text(),
            std::string("c.json:") + GetParam().refusal);
}

INSTANTIATE_TEST_SUITE_P(Lists, CommandRefusal, testing::ValuesIn(kCases));

TEST(CommandList, ShowsEveryRefusal) {
  const CommandList list = CommandListReader().read(
      "[{\"updateFlows\": {\"adds\": [\n{\"priority\": 1000000000},\n{},\n"
      "{\"priority\": 2000000000}]}},\n{\"getStats\": {\"tableId\": 99}}]",
      "c.json");
  std::vector<int> lines;
  for (const Diagnostic& refusal : list.refusals) {
    lines.push_back(refusal.line);
  }
  EXPECT_EQ(lines, (std::vector<int>{2, 4, 5}));
  EXPECT_TRUE(list.commands.empty());
}

TEST(CommandList, TakesTheLastTableAndSlot) {
  const auto refusal = [](const std::string& command) {
    const CommandList list =
        CommandListReader().read("[" + command + "]", "c.json");
    return list.ok() ? "" : list.refusals[0].reason;
  };
  const auto gotoTable = [&](const char* table, const char* next) {
    return refusal(
        std::string("{\"updateFlows\": {\"tableId\": ") + table +
        ", \"adds\": [{\"action\": {\"fields\": {\"gotoTbl\": true}, "
        "\"values\": {\"nextTbl\": " +
        next + "}}}]}}");
  };
  EXPECT_EQ(gotoTable("30", "31"), "");
  EXPECT_EQ(gotoTable("31", "32"),
            "command 0: updateFlows: adds[0].action.values.nextTbl: 32 must be "
            "above tableId 31 and below 32");
  EXPECT_EQ(refusal("{\"setAclIds\": {\"tableId\": 31, \"aclId\": 65534, "
                    "\"ipv6AclId\": 65535}}"),
            "");
  // Also those that it has already, the other way round.
  EXPECT_EQ(refusal("{\"setAclIds\": {\"tableId\": 31, \"aclId\": 63, "
                    "\"ipv6AclId\": 62}}"),
            "");
  EXPECT_EQ(refusal("{\"setAclIds\": {\"tableId\": 31, \"aclId\": 0, "
                    "\"ipv6AclId\": 62}}"),
            "command 0: setAclIds: aclId: slot 0 belongs to table 0");
}

TEST(CommandList, RefusesTooManyGates) {
  std::string gates = "1";
  for (int i = 1; i < 64; i++) gates += ",1";
  const auto read = [](const std::string& ogate) {
    return CommandListReader().read(
        "[{\"updateFlows\": {\"adds\": [{\"action\": {\"values\": "
        "{\"ogate\": [" +
            ogate + "]}}}]}}]",
        "c.json");
  };
  EXPECT_TRUE(read(gates).ok());
  const CommandList list = read(gates + ",1");
  ASSERT_EQ(list.refusals.size(), 1u);
  EXPECT_EQ(list.refusals[0].reason,
            "command 0: updateFlows: adds[0].action.values.ogate: 65 gates, "
            "at most 64");
}

TEST(CommandList, RemembersBindingsFromListToList) {
  CommandListReader reader;
  const char* kFirst =
      R"([{"setAclIds": {"tableId": 1, "aclId": 100, "ipv6AclId": 101}}])";
  const char* kSecond =
      R"([{"setAclIds": {"tableId": 5, "aclId": 2, "ipv6AclId": 100}}])";
  EXPECT_TRUE(reader.read(kFirst, "a.json").ok());
  const CommandList list = reader.read(kSecond, "b.json");
  ASSERT_EQ(list.refusals.size(), 1u);
  EXPECT_EQ(list.refusals[0].text(),
            "b.json:1:2: command 0: setAclIds: ipv6AclId: slot 100 belongs to "
            "table 1");
}

TEST(JsonPlaces, FindsValuesWhateverStandsInStrings) {
  const std::string_view text =
      R"( { "a" : [ 1 , "],\"}" , {"b":[]} ] , "c\"":-2.5e3 ,"d":null } )";
  const auto members = jsonMembers(text);
  ASSERT_EQ(members.size(), 3u);
  EXPECT_EQ(members[0].first, "a");
  EXPECT_EQ(members[1].first, R"(c\")");
  EXPECT_EQ(members[1].second, "-2.5e3");
  EXPECT_EQ(members[2].second, "null");
  EXPECT_EQ(jsonElements(members[0].second),
            (std::vector<std::string_view>{"1", R"("],\"}")", R"({"b":[]})"}));
  EXPECT_EQ(jsonMember(text, "d"), "null");
  EXPECT_EQ(jsonMember(text, "e"), std::nullopt);
  EXPECT_TRUE(jsonElements(text).empty());
  EXPECT_TRUE(jsonMembers("[]").empty());
}

}  // namespace
}  // namespace ofswitch
