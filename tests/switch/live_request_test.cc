// SPDX-License-Identifier: BSD-3-Clause
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "switch/flow/flow_printer.h"
#include "switch/flow/flow_reader.h"
#include "switch/flow/refused.h"
#include "switch/live/flow_request.h"
#include "tests/switch/live_book.h"

namespace ofswitch {
namespace {

struct RequestCase {
  const char* name;
  void (*fill)(pb::FlowChange*);
  const char* refusal;
};

pb::FlowMessage* flow(pb::FlowChange* change, pb::FlowOperation operation) {
  change->set_operation(operation);
  return change->add_flows();
}
constexpr auto kAdd = pb::FLOW_OPERATION_ADD;
constexpr auto kDelete = pb::FLOW_OPERATION_DELETE;

const RequestCase kRequestCases[] = {
    {"NoOperation", [](pb::FlowChange*) {},
     "request: the operation must be one of add, delete and replace"},
    {"UnknownOperation",
     [](pb::FlowChange* c) {
       c->set_operation(static_cast<pb::FlowOperation>(77));
     },
     "request: the operation must be one of add, delete and replace"},
    {"StrictAdd",
     [](pb::FlowChange* c) {
       c->set_operation(kAdd);
       c->set_strict(true);
     },
     "request: only a deletion can be strict or loose"},
    {"StrictDeleteOfNothing",
     [](pb::FlowChange* c) {
       c->set_operation(kDelete);
       c->set_strict(true);
     },
     "request: a strict deletion needs the match of its flow"},
    {"FileName",
     [](pb::FlowChange* c) {
       c->set_operation(kAdd);
       c->set_text_name("a.txt");
       c->set_text("\n# none\ntable=32,actions=drop\n");
     },
     "a.txt:3: table=32: tables are numbers from 0 to 31"},
    {"LoosePriority",
     [](pb::FlowChange* c) {
       c->set_operation(kDelete);
       c->set_text("\npriority=5\n");
     },
     "request:2: priority=5: a priority selects flows only with --strict"},
    {"FilterWithActions",
     [](pb::FlowChange* c) {
       c->set_operation(kDelete);
       c->set_text("ip,actions=drop");
     },
     "request:1: actions=drop: flows are not selected by their actions; write "
     "out_port=PORT"},
    {"FilterWordTwice",
     [](pb::FlowChange* c) {
       c->set_operation(kDelete);
       c->set_text("table=1,table=2");
     },
     "request:1: table=2: table stands in the filter twice"},
    {"MessageTable",
     [](pb::FlowChange* c) {
       flow(c, kAdd)->set_table(4000000000u);
       c->mutable_flows(0)->add_actions("drop");
     },
     "request:1: table=4000000000: tables are numbers from 0 to 31"},
    {"MessagePriority",
     [](pb::FlowChange* c) {
       flow(c, kAdd)->set_priority(65536);
       c->mutable_flows(0)->add_actions("drop");
     },
     "request:1: priority=65536: 65536 is above 65535"},
    {"MessageWithoutActions", [](pb::FlowChange* c) { flow(c, kAdd); },
     "request:1: no actions; say \"drop\" for a flow that drops"},
    {"MessageFieldWithoutName",
     [](pb::FlowChange* c) { flow(c, kAdd)->add_match()->set_value("3"); },
     "request:1: a match field has no name"},
    {"MessageFieldOfTwoWords",
     [](pb::FlowChange* c) {
       flow(c, kAdd)->add_match()->set_name("tcp,in_port=1");
     },
     "request:1: field \"tcp,in_port=1\" is not one word of flow text"},
    {"MessageActionOfTwoLines",
     [](pb::FlowChange* c) { flow(c, kAdd)->add_actions("drop\nip"); },
     "request:1: action \"drop\\x0aip\" is not one word of flow text"},
    {"MessageWithMask",
     [](pb::FlowChange* c) { flow(c, kAdd)->set_cookie_mask(1); },
     "request:1: a cookie mask selects flows, it cannot be added"},
    {"MessageWithOutPort",
     [](pb::FlowChange* c) { flow(c, kAdd)->set_out_port(1); },
     "request:1: out_port selects flows; an output is an action"},
    {"FilterMessageWithActions",
     [](pb::FlowChange* c) { flow(c, kDelete)->add_actions("drop"); },
     "request:1: flows are not selected by their actions; use out_port"},
    {"FilterMessageWithTimeout",
     [](pb::FlowChange* c) { flow(c, kDelete)->set_idle_timeout(1); },
     "request:1: flows are not selected by their timeouts"},
};

class Requests : public testing::TestWithParam<RequestCase> {};

TEST(FlowRequests, OfAWrongFilterAreRefusedForThatAlone) {
  pb::FlowChange change;
  change.set_operation(kDelete);
  change.set_strict(true);
  change.set_text("tabel=3\n");
  EXPECT_THAT(readFlowRequest(change).refusals, testing::SizeIs(1));
}

TEST(FlowRequests, AreRefusedInAFewWords) {
  pb::FlowChange change;
  change.set_operation(kAdd);
  // A number may have any number of zeros in front.
  change.set_text("actions=mod_vlan_pcp:" + std::string(10'000, '0') +
                  "3,output:1\n");
  const FlowRequest request = readFlowRequest(change);
  ASSERT_THAT(request.refusals, testing::SizeIs(1));
  EXPECT_EQ(request.refusals[0].reason.size(), 503u);
  EXPECT_THAT(request.refusals[0].reason, testing::EndsWith("000..."));
}

// Lines and messages count alike.
TEST(FlowRequests, HaveSoManyFlowsAtMost) {
  pb::FlowChange change;
  change.set_operation(kAdd);
  change.set_text("in_port=1,actions=drop\n");
  flow(&change, kAdd)->add_actions("drop");
  EXPECT_TRUE(readFlowRequest(change, 2).ok());
  flow(&change, kAdd)->add_actions("drop");
  flow(&change, kAdd)->add_actions("drop");
  const FlowRequest messages = readFlowRequest(change, 2);
  ASSERT_THAT(messages.refusals, testing::SizeIs(1));
  EXPECT_EQ(messages.refusals[0].text(),
            "request:2: at most 2 flows are taken at once");

  change.clear_flows();
  change.set_text(
      "in_port=1,actions=drop\nin_port=2,actions=drop\n"
      "in_port=3,actions=drop\nin_port=4,actions=drop\n");
  const FlowRequest lines = readFlowRequest(change, 2);
  ASSERT_THAT(lines.refusals, testing::SizeIs(1));
  EXPECT_EQ(lines.refusals[0].line, 3);
  EXPECT_EQ(kMostFlows, 1'000'000u);
}

TEST_P(Requests, AreRefusedWithTheirPlaceAndReason) {
  pb::FlowChange change;
  GetParam().fill(&change);
  const FlowRequest request = readFlowRequest(change);
  ASSERT_EQ(request.refusals.size(), 1);
  EXPECT_EQ(request.refusals[0].text(), GetParam().refusal);
}

INSTANTIATE_TEST_SUITE_P(Rows, Requests, testing::ValuesIn(kRequestCases),
                         [](const auto& row) { return row.param.name; });

TEST(FlowRequest, LooseDeletionWithoutFilterIsOfEverything) {
  pb::FlowChange change;
  change.set_operation(kDelete);
  EXPECT_EQ(readFlowRequest(change).filters.size(), 1);
}

// Whatever is sent is taken or refused; what is taken, means what its printed
// form means.
TEST(FlowRequest, TakesOrRefusesAnything) {
  const std::string seeds[] = {
      "table=3,priority=7,cookie=0x12,idle_timeout=9,in_port=1,tcp,"
      "nw_dst=10.0.0.0/8,tp_dst=80,tcp_flags=+syn-ack,actions=dec_ttl,"
      "mod_vlan_vid:5,output:2,controller(reason=action),goto_table:9",
      "ipv6,ipv6_dst=2001:db8::/32,dl_vlan=7,dl_src=02:00:00:00:00:01,"
      "actions=set_field:0a:00:00:00:00:01->eth_dst,all",
      "cookie=0x1/0xff,out_port=controller,arp,arp_tpa=10.0.0.1"};
  const std::string letters = ",=:/().0123456789abcdefx_->\t \n\0\xff%#+";
  std::mt19937 random(11);
  const auto below = [&](size_t n) { return random() % n; };
  BookBench bench;
  int taken = 0;
  for (int round = 0; round < 20000; round++) {
    const bool add = round % 2 == 0;
    std::string text = seeds[add ? below(2) : 2];
    for (size_t i = below(3); i > 0; i--) {
      switch (below(3)) {
        case 0:
          text[below(text.size())] = letters[below(letters.size())];
          break;
        case 1:
          text.erase(below(text.size()), 1 + below(4));
          break;
        default:
          text.insert(below(text.size()), 1, letters[below(letters.size())]);
      }
      if (text.empty()) text = ",";
    }
    pb::FlowChange change;
    change.set_operation(add ? kAdd : kDelete);
    change.set_strict(round % 4 == 3);
    change.set_text(text);
    const FlowRequest request = readFlowRequest(change);
    taken += request.ok();
    if (!request.ok()) continue;
    for (const Flow& flow : request.flows) {
      EXPECT_EQ(FlowReader({.allowTimeouts = true}).readLine(flowText(flow)),
                flow)
          << text;
    }
    FlowBook::Plan plan = add ? bench.book.planAdd(request.flows, false)
                              : bench.book.planDelete(request.filters);
    if (plan.refusals.empty()) {
      EXPECT_TRUE(bench.make(std::move(plan)).applied());
    }
  }
  EXPECT_GT(taken, 5000);
  EXPECT_LT(taken, 19000);
}

TEST(FlowRequest, AFilterIsTextOrAMessage) {
  pb::FlowFilter filter;
  filter.mutable_flow();
  EXPECT_FALSE(readFlowFilter(filter).table.has_value());
  filter.set_text("table=3");
  try {
    readFlowFilter(filter);
    FAIL();
  } catch (const Refused& reason) {
    EXPECT_STREQ(reason.what(),
                 "a filter is given as text or as a message, not both");
  }
  filter.clear_flow();
  EXPECT_EQ(readFlowFilter(filter).table, 3);
}

}  // namespace
}  // namespace ofswitch
