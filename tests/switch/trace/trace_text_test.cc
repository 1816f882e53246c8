// SPDX-License-Identifier: BSD-3-Clause
#include "switch/trace/trace_text.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace ofswitch {
namespace {

using nlohmann::json;
using Reply = pb::TraceReply;

void addOutput(uint32_t port, const std::string& frame, bool connected,
               Reply* reply) {
  Reply::Output* output = reply->add_outputs();
  output->set_port(port);
  output->set_frame(frame);
  output->set_connected(connected);
}

void addField(const std::string& name, const std::string& value,
              Reply::Field* field) {
  field->set_name(name);
  field->set_value(value);
}

// A packet that table 3 hands on to table 5, which drops it.
Reply twoTables() {
  Reply reply;
  reply.set_frame("\x01");
  reply.set_in_port(7);
  Reply::Step* first = reply.add_steps();
  first->set_table(3);
  addField("a", "1", first->add_key());
  addField("b", "2", first->add_key());
  pb::FlowEntry* flow = first->mutable_flow();
  flow->set_flow("FLOW");
  flow->set_flow_id(4);
  flow->set_table(3);
  flow->set_priority(6);
  flow->set_cookie(0x2a);
  flow->set_match("MATCH");
  flow->add_actions("one");
  flow->add_actions("two");
  flow->set_origin("f.txt:1");
  first->set_ipv6_classifier(true);
  Reply::Rewrite* rewrite = first->add_rewrites();
  rewrite->set_field("ttl");
  rewrite->set_before("64");
  rewrite->set_after("63");
  first->add_outputs("port 2");
  first->add_notes("NOTE");
  first->set_goto_table(5);
  Reply::Step* second = reply.add_steps();
  second->set_table(5);
  addField("c", "3", second->add_key());
  Reply::NearMiss* near = second->add_near();
  near->mutable_flow()->set_flow("NEAR");
  addField("c", "4", near->add_wanted());
  addField("c", "3", near->add_found());
  second->mutable_drop()->set_name("cause");
  second->mutable_drop()->set_sentence("Because.");
  addOutput(2, "\xaa", true, &reply);
  addOutput(9, "\xbb\x0c", false, &reply);
  addOutput(0, "\xaa", true, &reply);
  reply.set_outputs_left_out(1);
  return reply;
}

TEST(TraceText, TellsEachStepAndWhatLeaves) {
  EXPECT_EQ(traceText(twoTables()),
            "packet of 1 byte into port 7\n"
            "table 3\n"
            "  key     a=1,b=2\n"
            "  match   FLOW\n"
            "          flow 4, cookie 0x2a, IPv6 classifier, f.txt:1\n"
            "  set     ttl 64 -> 63\n"
            "  output  port 2\n"
            "  note    NOTE\n"
            "  goto    table 5\n"
            "table 5\n"
            "  key     c=3\n"
            "  match   none\n"
            "  near    NEAR\n"
            "          c is 3, not 4\n"
            "  drop    cause: Because.\n"
            "leaves by port 2, controller: 1 byte\n"
            "  aa\n"
            "leaves by port 9 (lost: there is none): 2 bytes\n"
            "  bb0c\n"
            "1 more packet left out here\n");
}

TEST(TraceText, TellsWhenNothingLeaves) {
  Reply reply;
  reply.set_in_port(1);
  reply.add_steps()->mutable_flow()->set_flow("FLOW");
  EXPECT_EQ(traceText(reply),
            "packet of 0 bytes into port 1\n"
            "table 0\n"
            "  key     \n"
            "  match   FLOW\n"
            "          flow 0, cookie 0x0, IPv4 classifier\n"
            "nothing leaves the switch\n");
}

TEST(TraceText, HasAllOfItInJson) {
  json flow = {{"id", 4},          {"table", 3},
               {"priority", 6},    {"cookie", 42},
               {"match", "MATCH"}, {"actions", {"one", "two"}},
               {"flow", "FLOW"},   {"origin", "f.txt:1"}};
  json near = {{"id", 0},        {"table", 0},  {"priority", 0},
               {"cookie", 0},    {"match", ""}, {"actions", json::array()},
               {"flow", "NEAR"}, {"origin", ""}};
  const json expected = {
      {"frame", "01"},
      {"in_port", 7},
      {"steps",
       {{{"table", 3},
         {"key", {{"a", "1"}, {"b", "2"}}},
         {"flow", flow},
         {"classifier", "ipv6"},
         {"rewrites", {{{"field", "ttl"}, {"before", "64"}, {"after", "63"}}}},
         {"outputs", json::array({"port 2"})},
         {"notes", json::array({"NOTE"})},
         {"goto_table", 5}},
        {{"table", 5},
         {"key", {{"c", "3"}}},
         {"flow", nullptr},
         {"near",
          {{{"flow", near},
            {"differs", {{{"field", "c"}, {"wanted", "4"}, {"found", "3"}}}}}}},
         {"rewrites", json::array()},
         {"outputs", json::array()},
         {"notes", json::array()},
         {"drop", {{"name", "cause"}, {"sentence", "Because."}}}}}},
      {"outputs",
       {{{"port", 2}, {"connected", true}, {"frame", "aa"}},
        {{"port", 9}, {"connected", false}, {"frame", "bb0c"}},
        {{"port", 0}, {"connected", true}, {"frame", "aa"}}}},
      {"outputs_left_out", 1}};
  EXPECT_EQ(json::parse(traceJson(twoTables())), expected);
  Reply reply;
  reply.add_steps()->mutable_flow();
  EXPECT_EQ(json::parse(traceJson(reply))["steps"][0]["classifier"], "ipv4");
}

}  // namespace
}  // namespace ofswitch
