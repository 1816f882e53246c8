// SPDX-License-Identifier: BSD-3-Clause
//
// What flow files and command lists together ask of the module, and by which
// name reports call each rule of it.
#include "switch/replay/policy.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "switch/flow/update_batch.h"
#include "tests/captures/capture_files.h"

namespace ofswitch {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Kind = PolicyRule::Kind;

class LoadedPolicy : public testing::Test {
 protected:
  std::string write(const std::string& name, const std::string& text) const {
    openflow_test::writeFile(dir_ / name, text);
    return dir_ / name;
  }

  static TableUpdate updateOf(const PolicyCommand& command) {
    TableUpdate update;
    EXPECT_TRUE(command.arg.UnpackTo(&update)) << command.name;
    return update;
  }

  openflow_test::ScratchDir dir_;
};

constexpr char kCommands[] = R"([
  {"setAclIds": {"tableId": 5, "aclId": 100, "ipv6AclId": 101}},
  {"updateFlows": {"tableId": 2, "flowType": "OPENFLOW_TYPE_IPV6", "adds": [
      {"flowId": 1, "priority": 70, "packetCounterId": 2, "byteCounterId": 3,
       "action": {"fields": {"setOutputPort": true}, "values": {"ogate": [6]}}},
      {"flowId": 8, "priority": 80, "action": {"values": {"ogate": [0, 5]}}},
      {"flowId": 9}]}},
  {"updateFlows": {"tableId": 2, "flowType": "OPENFLOW_TYPE_IPV6",
                   "adds": [{"flowId": 8, "priority": 81}],
                   "deletes": [{"flowId": 9}]}},
  {"getStats": {"tableId": 2}}])";

TEST_F(LoadedPolicy, NamesEachRuleByItsFlow) {
  const std::string flows = write("flows.txt",
                                  "# a comment\n"
                                  "priority=5,ip,actions=dec_ttl,output:2\n"
                                  "in_port=3,actions=goto_table:4 # on\n");
  const std::string commands = write("commands.json", kCommands);
  const Policy policy = loadPolicy({flows, commands}, {7, 2}, {});
  ASSERT_THAT(policy.refusals, IsEmpty());
  EXPECT_THAT(policy.notes, IsEmpty());

  // By table, family and identifier.
  std::vector<std::string> rules;
  for (const PolicyRule& rule : policy.rules) {
    rules.push_back(std::to_string(rule.table) + " " +
                    std::to_string(rule.family) + " " +
                    std::to_string(rule.priority) + " kind " +
                    std::to_string(static_cast<int>(rule.kind)));
  }
  EXPECT_THAT(rules,
              ElementsAre("0 0 12 kind 0", "0 0 13 kind 1", "0 0 65538 kind 0",
                          "2 1 70 kind 0", "2 1 81 kind 0", "4 0 1 kind 2"));
  std::vector<std::string> names;
  for (const PolicyFlow& flow : policy.flows) {
    names.push_back(flow.where + "|" + flow.text);
  }
  ASSERT_THAT(
      names,
      ElementsAre(flows + ":2|priority=5,ip,actions=dec_ttl,output:2",
                  flows + ":3|in_port=3,actions=goto_table:4",
                  "|table=4 has no flow: drop",
                  commands + ":3|table=2,ipv6,flowId=1,modulePriority=70",
                  commands + ":8|table=2,ipv6,flowId=8,modulePriority=81"));
  EXPECT_THAT(policy.flows[0].rules, ElementsAre(0u, 1u));
  EXPECT_THAT(policy.flows[1].rules, ElementsAre(2u));
  EXPECT_THAT(policy.flows[2].rules, ElementsAre(5u));
  EXPECT_THAT(policy.flows[3].rules, ElementsAre(3u));
  EXPECT_THAT(policy.flows[4].rules, ElementsAre(4u));

  // The controller's gate is none of the switch's ports.
  EXPECT_THAT(policy.ports, ElementsAre(2, 3, 5, 6, 7));
}

TEST_F(LoadedPolicy, CountsEachRuleByItself) {
  const std::string flows =
      write("flows.txt", "ip,actions=dec_ttl,output:2\nactions=drop\n");
  const std::string commands = write("commands.json", kCommands);
  const Policy policy = loadPolicy({commands, flows}, {}, {});
  ASSERT_THAT(policy.refusals, IsEmpty());
  std::set<uint32_t> ids;
  std::set<uint32_t> counters;
  for (const PolicyRule& rule : policy.rules) {
    ids.insert(rule.flowId);
    counters.insert({rule.packetCounterId, rule.byteCounterId});
    EXPECT_LT(rule.packetCounterId, policy.numCounters);
    EXPECT_LT(rule.byteCounterId, policy.numCounters);
  }
  EXPECT_THAT(policy.rules, SizeIs(5));
  EXPECT_THAT(ids, SizeIs(5)) << "no flow has one of the list's";
  EXPECT_THAT(counters, SizeIs(10));
  // One more than is in use; what was replaced and removed had counters, too.
  EXPECT_EQ(*counters.rbegin() + 1, policy.numCounters);
  // Those of the list are the switch's choice.
  const TableUpdate update = updateOf(policy.commands[1]);
  EXPECT_FALSE(counters.contains(2) || counters.contains(3));
  EXPECT_NE(update.adds(0).packetcounterid(), 2u);
  EXPECT_NE(update.adds(0).bytecounterid(), 3u);
}

TEST_F(LoadedPolicy, KeepsTheCommandsInTheirOrder) {
  const std::string flows = write("flows.txt", "ipv6,actions=output:2\n");
  const std::string commands = write("commands.json", kCommands);
  const Policy policy = loadPolicy({flows, commands}, {}, {});
  ASSERT_THAT(policy.refusals, IsEmpty());
  std::vector<std::string> list;
  for (const PolicyCommand& command : policy.commands) {
    list.push_back(command.name + " of " + command.where);
  }
  ASSERT_THAT(list, ElementsAre("updateFlows of " + flows,
                                "setAclIds of " + commands + ":2",
                                "updateFlows of " + commands + ":3",
                                "updateFlows of " + commands + ":8",
                                "getStats of " + commands + ":11"));
  EXPECT_EQ(updateOf(policy.commands[0]).adds_size(), 1);
  EXPECT_EQ(updateOf(policy.commands[2]).adds_size(), 3);
  EXPECT_EQ(updateOf(policy.commands[3]).deletes_size(), 1);
  quil::pb::OpenFlowAclArg binding;
  ASSERT_TRUE(policy.commands[1].arg.UnpackTo(&binding));
  EXPECT_EQ(binding.ipv6aclid(), 101u);
  quil::pb::OpenFlowGetStatsArg stats;
  ASSERT_TRUE(policy.commands[4].arg.UnpackTo(&stats));
  EXPECT_EQ(stats.tableid(), 2u);
}

TEST_F(LoadedPolicy, HasThePortsItIsGiven) {
  const std::string flows = write("flows.txt", "in_port=3,actions=output:9\n");
  const Policy policy = loadPolicy({flows}, {7}, {5, 0, 2, 5});
  EXPECT_THAT(policy.ports, ElementsAre(2, 5));
  ASSERT_THAT(policy.notes, SizeIs(1));
  EXPECT_EQ(policy.notes[0].noteText(),
            flows +
                ":1: note: output:9: port 9 is not connected, what is "
                "sent there goes nowhere");
}

TEST_F(LoadedPolicy, HasNoRulesWhenALineIsRefused) {
  const std::string good = write("good.txt", "actions=drop\n");
  const std::string bad = write("bad.txt", "actions=fly\n");
  const std::string list = write("bad.json", "[{}]");
  const Policy policy = loadPolicy({good, bad, list}, {}, {});
  ASSERT_THAT(policy.refusals, SizeIs(2));
  EXPECT_EQ(policy.refusals[0].file, bad);
  EXPECT_EQ(policy.refusals[1].file, list);
  EXPECT_THAT(policy.rules, IsEmpty());
  EXPECT_THAT(policy.flows, IsEmpty());
}

// Nothing for tables without flows beside a command list; see "ofswitch check".
TEST_F(LoadedPolicy, TakesAnEmptyTextForAnEmptyTable) {
  const std::string empty = write("empty.txt", "# nothing\n");
  EXPECT_THAT(loadPolicy({empty}, {}, {}).rules, SizeIs(1));
  const std::string commands = write("commands.json", kCommands);
  EXPECT_THAT(loadPolicy({empty, commands}, {}, {}).rules, SizeIs(2));
}

}  // namespace
}  // namespace ofswitch
