// SPDX-License-Identifier: BSD-3-Clause
#include "switch/live/flow_filter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "switch/flow/flow_reader.h"
#include "switch/flow/refused.h"
#include "switch/live/flow_request.h"

namespace ofswitch {
namespace {

constexpr auto kAdd = pb::FLOW_OPERATION_ADD;
constexpr auto kDelete = pb::FLOW_OPERATION_DELETE;

// Flows that differ in one field of the match.
struct FieldRow {
  const char* wide;
  const char* narrow;  // what `wide` covers, and more is said
  const char* other;   // the same field, another value
};

void PrintTo(const FieldRow& row, std::ostream* out) { *out << row.narrow; }

const FieldRow kFields[] = {
    {"", "in_port=1", "in_port=2"},
    {"", "dl_src=02:00:00:00:00:01", "dl_src=02:00:00:00:00:02"},
    {"dl_src=02:00:00:00:00:00/ff:00:00:00:00:00", "dl_src=02:00:00:00:00:01",
     "dl_src=04:00:00:00:00:01"},
    {"", "dl_dst=02:00:00:00:00:01", "dl_dst=02:00:00:00:00:02"},
    {"", "dl_type=0x88cc", "dl_type=0x88cd"},
    {"", "dl_vlan=1", "dl_vlan=2"},
    {"ip", "ip,nw_proto=6", "ip,nw_proto=17"},
    {"ip", "ip,nw_tos=4", "ip,nw_tos=8"},
    {"ip,nw_tos=4", "ip,nw_tos=4,nw_ecn=1", "ip,nw_tos=8,nw_ecn=1"},
    {"ip", "ip,nw_ttl=4", "ip,nw_ttl=5"},
    {"ip,nw_src=10.0.0.0/8", "ip,nw_src=10.1.0.0/16", "ip,nw_src=11.1.0.0/16"},
    {"ip,nw_dst=10.0.0.0/8", "ip,nw_dst=10.1.0.0/16", "ip,nw_dst=11.1.0.0/16"},
    {"ipv6,ipv6_src=2001::/16", "ipv6,ipv6_src=2001:db8::/32",
     "ipv6,ipv6_src=2002:db8::/32"},
    {"ipv6,ipv6_dst=2001::/16", "ipv6,ipv6_dst=2001:db8::/32",
     "ipv6,ipv6_dst=2002:db8::/32"},
    {"arp", "arp,arp_tpa=10.0.0.1", "arp,arp_tpa=10.0.0.2"},
    {"tcp", "tcp,tp_src=1", "tcp,tp_src=2"},
    {"tcp", "tcp,tp_dst=1", "tcp,tp_dst=2"},
    {"tcp,tcp_flags=+syn", "tcp,tcp_flags=+syn-ack", "tcp,tcp_flags=-syn-ack"},
    {"icmp", "icmp,icmp_type=3", "icmp,icmp_type=4"},
    {"icmp", "icmp,icmp_code=3", "icmp,icmp_code=4"},
};

class FilterField : public testing::TestWithParam<FieldRow> {};

Flow flowOf(const std::string& match) {
  return FlowReader().readLine(match + (match.empty() ? "" : ",") +
                               "actions=drop");
}

TEST_P(FilterField, LooselyTheFilterMayBeWider) {
  const FieldRow& row = GetParam();
  const Flow wide = flowOf(row.wide);
  const Flow narrow = flowOf(row.narrow);
  const Flow other = flowOf(row.other);
  const FlowFilter filter = parseFlowFilter(row.narrow, false);
  EXPECT_TRUE(parseFlowFilter(row.wide, false).selects(narrow));
  EXPECT_TRUE(filter.selects(narrow));
  EXPECT_FALSE(filter.selects(other));
  EXPECT_FALSE(filter.selects(wide));
}

TEST_P(FilterField, StrictlyItIsTheSame) {
  const FieldRow& row = GetParam();
  const FlowFilter filter = parseFlowFilter(row.narrow, true);
  EXPECT_TRUE(filter.selects(flowOf(row.narrow)));
  EXPECT_FALSE(filter.selects(flowOf(row.other)));
  EXPECT_FALSE(filter.selects(flowOf(row.wide)));
  EXPECT_FALSE(parseFlowFilter(row.wide, true).selects(flowOf(row.narrow)));
}

INSTANTIATE_TEST_SUITE_P(Fields, FilterField, testing::ValuesIn(kFields));

bool selects(const char* filter, const char* flow, bool strict = false) {
  return parseFlowFilter(filter, strict).selects(FlowReader().readLine(flow));
}

TEST(FlowFilter, LooksAtWhatIsNotMatch) {
  EXPECT_TRUE(selects("table=3", "table=3,actions=drop"));
  EXPECT_FALSE(selects("table=3", "table=4,actions=drop"));
  EXPECT_FALSE(selects("table=0", "table=4,actions=drop"));
  EXPECT_TRUE(selects("", "table=4,actions=drop"));
  EXPECT_TRUE(selects("cookie=0x10/0xf0", "cookie=0x1f,actions=drop"));
  EXPECT_FALSE(selects("cookie=0x10/0xf0", "cookie=0x2f,actions=drop"));
  EXPECT_TRUE(selects("cookie=0x1f/0xf0", "cookie=0x15,actions=drop"));
  EXPECT_TRUE(selects("cookie=5/-1", "cookie=5,actions=drop"));
  EXPECT_FALSE(selects("cookie=5/-1", "cookie=0x105,actions=drop"));
  EXPECT_TRUE(selects("priority=5", "priority=5,actions=drop", true));
  EXPECT_FALSE(selects("priority=5", "priority=6,actions=drop", true));
  EXPECT_TRUE(selects("priority=65535", "priority=65535,actions=drop", true));
  EXPECT_TRUE(selects("", "actions=drop", true));
  EXPECT_FALSE(selects("", "priority=6,actions=drop", true));
}

TEST(FlowFilter, FindsWhoSendsToAPort) {
  EXPECT_TRUE(selects("out_port=2", "actions=output:1,output:2"));
  EXPECT_FALSE(selects("out_port=2", "actions=output:1,output:3"));
  EXPECT_FALSE(selects("out_port=2", "actions=goto_table:2"));
  EXPECT_TRUE(selects("out_port=controller", "actions=1,controller"));
  EXPECT_FALSE(selects("out_port=controller", "actions=1"));
  EXPECT_FALSE(selects("out_port=2", "actions=controller"));
  EXPECT_FALSE(selects("out_port=1", "actions=all"));
}

std::string filterRefusal(const char* text) {
  try {
    parseFlowFilter(text, false);
    return "";
  } catch (const Refused& refused) {
    return refused.what();
  }
}

TEST(FlowFilter, RefusesWhatSelectsNothing) {
  EXPECT_EQ(filterRefusal("action=drop"),
            "action=drop: flows are not selected by their actions; write "
            "out_port=PORT");
  EXPECT_EQ(filterRefusal("out_group=3"),
            "out_group=3: the module has no groups");
  EXPECT_EQ(filterRefusal("out_port=8192"),
            "out_port=8192: 8192 is above 8191");
  EXPECT_EQ(filterRefusal("table=32"), "table=32: 32 is above 31");
  EXPECT_EQ(filterRefusal("cookie=1,cookie=1"),
            "cookie=1: cookie stands in the filter twice");
  EXPECT_EQ(filterRefusal("cookie=x/-1"), "cookie=x/-1: \"x\" is not a number");
}

// A message is read as the text that says the same.
TEST(FlowRequest, TakesFiltersAsMessages) {
  pb::FlowChange change;
  change.set_operation(kDelete);
  change.add_flows()->set_table(3);
  change.add_flows()->set_cookie(0x15);
  pb::FlowMessage* masked = change.add_flows();
  masked->set_cookie(0x15);
  masked->set_cookie_mask(0xf0);
  change.add_flows()->set_cookie_mask(0xf);
  change.add_flows()->set_out_port(2);
  pb::FlowMessage::Field* field = change.add_flows()->add_match();
  field->set_name("ip");
  field = change.mutable_flows(5)->add_match();
  field->set_name("nw_dst");
  field->set_value("10.0.0.0/8");
  const FlowRequest request = readFlowRequest(change);
  ASSERT_TRUE(request.ok()) << request.refusals[0].text();
  ASSERT_THAT(request.filters, testing::SizeIs(6));
  EXPECT_EQ(request.filters[0].table, 3);
  EXPECT_EQ(request.filters[1].cookie, Masked<uint64_t>::exact(0x15));
  EXPECT_EQ(request.filters[2].cookie, (Masked<uint64_t>{0x10, 0xf0}));
  EXPECT_EQ(request.filters[3].cookie, (Masked<uint64_t>{0, 0xf}));
  EXPECT_EQ(request.filters[4].outPort, 2);
  EXPECT_EQ(request.filters[5].match, flowOf("ip,nw_dst=10.0.0.0/8").match);
}

// The reasons, each with the number of its message.
std::vector<std::string> refusals(const pb::FlowChange& change) {
  std::vector<std::string> texts;
  for (const Diagnostic& refusal : readFlowRequest(change).refusals) {
    texts.push_back(refusal.text());
  }
  return texts;
}

TEST(FlowRequest, RefusesFilterMessagesWithTheirNumber) {
  pb::FlowChange change;
  change.set_operation(kDelete);
  change.add_flows()->set_table(3);
  change.add_flows()->set_hard_timeout(1);
  change.add_flows()->add_actions("drop");
  EXPECT_THAT(refusals(change),
              testing::ElementsAre(
                  "request:2: flows are not selected by their timeouts",
                  "request:3: flows are not selected by their actions; use "
                  "out_port"));
}

TEST(FlowRequest, StopsAtAThousandWrongMessages) {
  for (const pb::FlowOperation operation : {kAdd, kDelete}) {
    pb::FlowChange change;
    change.set_operation(operation);
    for (int i = 0; i < 2000; i++) change.add_flows()->set_table(99);
    const std::vector<std::string> texts = refusals(change);
    ASSERT_THAT(texts, testing::SizeIs(1000));
    EXPECT_THAT(texts.back(), testing::StartsWith("request:1000: "));
  }
}

TEST(FlowRequest, ThereAreAThousandFilterMessagesAtMost) {
  pb::FlowChange change;
  change.set_operation(kDelete);
  for (int i = 0; i < 1000; i++) change.add_flows()->set_table(3);
  EXPECT_THAT(readFlowRequest(change).filters, testing::SizeIs(1000));
  change.add_flows()->set_table(3);
  change.add_flows()->set_table(99);
  EXPECT_THAT(refusals(change),
              testing::ElementsAre(
                  "request:1001: at most 1000 filters are taken at once"));
  change.set_strict(true);
  change.mutable_flows()->RemoveLast();
  EXPECT_THAT(readFlowRequest(change).filters, testing::SizeIs(1001));
}

TEST(FlowRequest, WordsOfAMessageAreOneWordEach) {
  pb::FlowChange change;
  change.set_operation(kAdd);
  const auto refusalOfField = [&](const std::string& name,
                                  const std::string& value) {
    change.clear_flows();
    pb::FlowMessage* message = change.add_flows();
    message->add_actions("drop");
    pb::FlowMessage::Field* field = message->add_match();
    field->set_name(name);
    field->set_value(value);
    return refusals(change);
  };
  using testing::ElementsAre;
  using testing::IsEmpty;
  EXPECT_THAT(refusalOfField("dl_type", "0x88cc"), IsEmpty());
  EXPECT_THAT(refusalOfField("ip", ""), IsEmpty());
  EXPECT_THAT(refusalOfField("dl type", "1"),
              ElementsAre("request:1: field \"dl type\" is not one word of "
                          "flow text"));
  EXPECT_THAT(refusalOfField("dl_type\x7f", "1"),
              ElementsAre("request:1: field \"dl_type\\x7f\" is not one word "
                          "of flow text"));
  EXPECT_THAT(refusalOfField("ip,tcp", ""),
              ElementsAre("request:1: field \"ip,tcp\" is not one word of "
                          "flow text"));
  for (const char* name : {"dl=type", "dl:type", "dl(type", "dl)type"}) {
    EXPECT_THAT(refusalOfField(name, "1"),
                ElementsAre("request:1: field \"" + std::string(name) +
                            "\" is not one word of flow text"));
  }
  for (const char* value : {"1(", "1)"}) {
    EXPECT_THAT(refusalOfField("in_port", value),
                ElementsAre("request:1: value \"" + std::string(value) +
                            "\" is not one word of flow text"));
  }
  EXPECT_THAT(refusalOfField("in_port", std::string(200, '1') + ","),
              ElementsAre("request:1: value \"" + std::string(80, '1') +
                          "...\" is not one word of flow text"));
  EXPECT_THAT(refusalOfField("in_port", "1,tcp"),
              ElementsAre("request:1: value \"1,tcp\" is not one word of flow "
                          "text"));
  EXPECT_THAT(refusalOfField("", "1"),
              ElementsAre("request:1: a match field has no name"));
}

TEST(FlowRequest, ReadsAMessageAsItsText) {
  pb::FlowChange change;
  change.set_operation(kAdd);
  pb::FlowMessage* message = change.add_flows();
  message->set_cookie(0x12);
  message->set_idle_timeout(7);
  message->add_match()->set_name("ip");
  message->add_actions("dec_ttl");
  message->add_actions("output:2");
  const FlowRequest request = readFlowRequest(change);
  ASSERT_TRUE(request.ok()) << request.refusals[0].text();
  ASSERT_THAT(request.flows, testing::SizeIs(1));
  Flow wanted = flowOf("cookie=0x12,ip");
  wanted.actions = FlowReader().readLine("ip,actions=dec_ttl,output:2").actions;
  wanted.idleTimeout = 7;
  EXPECT_EQ(request.flows[0], wanted);
  EXPECT_EQ(request.flows[0].file, "request");
  EXPECT_EQ(request.flows[0].line, 1);
}

TEST(FlowRequest, MessagesHaveALengthToo) {
  pb::FlowChange change;
  change.set_operation(kAdd);
  pb::FlowMessage* message = change.add_flows();
  message->add_actions(std::string(300'000, 'x'));
  EXPECT_THAT(refusals(change),
              testing::ElementsAre("request:1: the line has 300038 characters, "
                                   "at most 262144 are taken"));
}

// Who sends a line of that length is told what else is wrong with it.
TEST(FlowRequest, TakesALineOfJustItsLength) {
  constexpr size_t kLongest = 262144;
  for (const pb::FlowOperation operation : {kAdd, kDelete}) {
    const bool isFilter = operation == kDelete;
    pb::FlowChange change;
    change.set_operation(operation);
    const auto refusalAt = [&](size_t length) {
      change.clear_flows();
      pb::FlowMessage* message = change.add_flows();
      pb::FlowMessage::Field* field = message->add_match();
      if (!isFilter) message->add_actions("drop");
      field->set_name(std::string(
          length - (isFilter ? 0
                             : std::string(",idle_timeout=0,hard_timeout=0,"
                                           "actions=drop")
                                   .size()),
          'x'));
      return refusals(change).at(0);
    };
    EXPECT_THAT(refusalAt(kLongest), testing::Not(testing::HasSubstr("most")));
    EXPECT_EQ(refusalAt(kLongest + 1),
              "request:1: the line has 262145 characters, at most 262144 are "
              "taken");
    change.clear_flows();
    change.set_text(std::string(kLongest, 'x'));
    EXPECT_THAT(refusals(change).at(0),
                testing::Not(testing::HasSubstr("most")));
    change.set_text(std::string(kLongest + 1, 'x'));
    EXPECT_EQ(refusals(change).at(0),
              "request:1: the line has 262145 characters, at most 262144 are "
              "taken");
  }
}

TEST(FlowRequest, FiltersMayHaveComments) {
  pb::FlowChange change;
  change.set_operation(kDelete);
  change.set_text("table=3 # three\n\n  # none\n\ttable=4\t\ntabel=5\n");
  EXPECT_THAT(refusals(change),
              testing::ElementsAre(testing::StartsWith("request:5: ")));
  change.set_text("table=3 # three\n\n  # none\n\ttable=4\t\n");
  const FlowRequest request = readFlowRequest(change);
  ASSERT_THAT(request.filters, testing::SizeIs(2));
  EXPECT_EQ(request.filters[0].table, 3);
  EXPECT_EQ(request.filters[1].table, 4);
}

TEST(FlowRequest, KeepsTheEndOfALongName) {
  pb::FlowChange change;
  change.set_operation(kAdd);
  change.set_text("x");
  const auto nameIn = [&](const std::string& name) {
    change.set_text_name(name);
    return readFlowRequest(change).refusals.at(0).file;
  };
  const std::string fits(255, 'n');
  EXPECT_EQ(nameIn(fits), fits);
  EXPECT_EQ(nameIn("m" + fits), "..." + std::string(252, 'n'));
  // A character in two bytes, of which the first would be cut off.
  EXPECT_EQ(nameIn("mmmm\u00e4" + std::string(251, 'n')),
            "..." + std::string(251, 'n'));
}

}  // namespace
}  // namespace ofswitch
