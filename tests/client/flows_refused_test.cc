// SPDX-License-Identifier: BSD-3-Clause
//
// What the commands say when a change is refused or fails.
#include <gmock/gmock.h>

#include "tests/client/flows_command.h"

namespace ofswitch {
namespace {

using testing::HasSubstr;

TEST_F(FlowsCommand, TellsWhereRefusedLinesCameFrom) {
  write("a.txt", "x\ny\n");
  write("b.txt", "z");
  refuse(1, "one");
  refuse(2, "two");
  refuse(3, "three");
  refuse(5, "four\x1b");
  refuse(6, "five");
  run("flows add q 'r\ns' --file a.txt --file b.txt");
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(out_, "");
  EXPECT_EQ(err_,
            "flow 1: one\n"
            "flow 2:1: two\n"
            "flow 2:2: three\n"
            "a.txt:2: four\\x1b\n"
            "b.txt:1: five\n"
            "ofswitch: nothing was changed: 5 lines refused\n");
  run("flows add q 'r\ns' --file a.txt --file b.txt --json");
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(err_, "");
  EXPECT_EQ(json()["applied"], false);
  EXPECT_EQ(json()["refusals"][3]["name"], "a.txt");
  EXPECT_EQ(json()["refusals"][3]["line"], 2);
}

TEST_F(FlowsCommand, KeepsTheNameOfWhatIsOnNoLine) {
  pb::Diagnostic* refusal = fake_.changeReply.add_refusals();
  refusal->set_name("the switch");
  refusal->set_reason("is full");
  pb::Diagnostic* note = fake_.changeReply.add_notes();
  note->set_line(2);
  note->set_reason("twice");
  fake_.changeReply.set_applied(false);
  run("flows add a --file -", "echo x |");
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(err_,
            "the switch: is full\n"
            "standard input:1: note: twice\n"
            "ofswitch: nothing was changed: 1 line refused\n");
  run("flows add a --file - --json", "echo x |");
  EXPECT_EQ(json()["notes"][0]["name"], "standard input");
  EXPECT_EQ(json()["notes"][0]["line"], 1);
}

// Which only a broken switch would tell of.
TEST_F(FlowsCommand, KeepsTheNumberOfALineThatItDidNotSend) {
  write("a.txt", "x\ny\n");
  pb::Diagnostic* refusal = fake_.changeReply.add_refusals();
  refusal->set_name("command line");
  refusal->set_line(99);
  refusal->set_reason("wrong");
  fake_.changeReply.set_applied(false);
  run("flows add q --file a.txt");
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(err_,
            "command line:99: wrong\n"
            "ofswitch: nothing was changed: 1 line refused\n");
  run("flows add q --file a.txt --json");
  EXPECT_EQ(json()["refusals"][0]["name"], "command line");
  EXPECT_EQ(json()["refusals"][0]["line"], 99);
  EXPECT_EQ(json()["refusals"][0]["reason"], "wrong");
}

TEST_F(FlowsCommand, PrintsTheFirstOfManyRefusals) {
  for (uint32_t line = 1; line <= 50; line++) refuse(line, "wrong");
  run("flows add -", "seq 50 |");
  EXPECT_EQ(status_, 1);
  EXPECT_THAT(err_, HasSubstr("standard input:20: wrong\n"
                              "and 30 more, which --json lists\n"
                              "ofswitch: nothing was changed: 50 lines "
                              "refused\n"));
  run("flows add - --json", "seq 50 |");
  EXPECT_EQ(json()["refusals"].size(), 50u);
}

TEST_F(FlowsCommand, PrintsOneMoreThanThatRatherThanThatThereIsOne) {
  for (uint32_t line = 1; line <= 21; line++) refuse(line, "wrong");
  run("flows add -", "seq 50 |");
  EXPECT_THAT(err_, HasSubstr("standard input:21: wrong\nofswitch: "));
  refuse(22, "wrong");
  run("flows add -", "seq 50 |");
  EXPECT_THAT(err_, HasSubstr("standard input:20: wrong\nand 2 more, which "
                              "--json lists\nofswitch: "));
}

TEST_F(FlowsCommand, TellsOfNotesAndFailures) {
  pb::Diagnostic* note = fake_.changeReply.add_notes();
  note->set_line(1);
  note->set_reason("replaced by line 2");
  fake_.changeReply.set_total_time_ns(5'000);
  run("flows add a b");
  EXPECT_EQ(status_, 0);
  EXPECT_EQ(err_, "flow 1: note: replaced by line 2\n");
  EXPECT_EQ(out_,
            "flows: 0 added, 0 changed, 0 removed, 0 unchanged\n"
            "no build, 5 us in all\n");
  fake_.changeReply.clear_notes();
  fake_.changeReply.set_applied(false);
  fake_.changeReply.set_failure("table 3 IPv4: it cannot be built");
  run("flows add a b");
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(out_, "");
  EXPECT_EQ(err_,
            "ofswitch: nothing was changed: table 3 IPv4: it cannot be "
            "built\n");
}

TEST_F(FlowsCommand, TellsOfBuildsThatFailedAndWereUndone) {
  pb::Build* build = fake_.changeReply.add_builds();
  build->set_flows(2);
  build->set_deletes(1);
  build->set_time_ns(3'000);
  build->set_failure("no memory");
  build = fake_.changeReply.add_builds();
  build->set_adds(1);
  build->set_is_inverse(true);
  run("flows add actions=drop --verbose");
  EXPECT_EQ(out_,
            "flows: 0 added, 0 changed, 0 removed, 0 unchanged\n"
            "2 builds in 0 us, 0 us in all\n"
            "  table 0 IPv4: 2 rules (0 adds, 1 delete), 3 us, failed: no "
            "memory\n"
            "  table 0 IPv4: 0 rules (1 add, 0 deletes), 0 us, undoing an "
            "earlier one\n");
}

TEST_F(FlowsCommand, FailsWhenThereIsNoAnswer) {
  fake_.hangsUp = true;
  run("flows add actions=drop");
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(out_, "");
  EXPECT_EQ(err_, "ofswitch: the switch hung up without an answer\n");
}

TEST_F(FlowsCommand, FailsWhenTheSwitchDoes) {
  fake_.flows.resize(1);
  fake_.flows[0].set_text("a flow");
  fake_.stats.resize(1);
  fake_.status = {grpc::StatusCode::INTERNAL, "the reason"};
  const std::string error =
      "ofswitch: control socket " + fake_.socket() + ": the reason\n";
  run("flows add actions=drop");
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(out_, "");
  EXPECT_EQ(err_, error);
  run("flows dump");
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(out_, "a flow\n");
  EXPECT_EQ(err_, error);
  for (const char* question : {"tables", "ports", "stats", "log", "log levels",
                               "stats --watch 0.1 --count 1"}) {
    run(question);
    EXPECT_EQ(status_, 1) << question;
    EXPECT_EQ(err_, error) << question;
  }
}

}  // namespace
}  // namespace ofswitch
