// SPDX-License-Identifier: BSD-3-Clause
#include "tests/client/flows_command.h"

#include <gmock/gmock.h>

namespace ofswitch {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

TEST_F(FlowsCommand, TellsWhatAChangeDid) {
  pb::FlowChangeReply& reply = fake_.changeReply;
  reply.set_added(3);
  reply.set_changed(1);
  reply.set_removed(2);
  reply.set_unchanged(12);
  pb::Build* build = reply.add_builds();
  build->set_table(3);
  build->set_flows(16);
  build->set_adds(4);
  build->set_deletes(1);
  build->set_time_ns(1'250'000);
  build = reply.add_builds();
  build->set_ipv6(true);
  build->set_flows(1);
  build->set_adds(1);
  build->set_time_ns(850'000);
  reply.set_build_time_ns(2'100'000);
  reply.set_total_time_ns(3'000'000'000);
  run("flows add actions=drop");
  EXPECT_EQ(status_, 0);
  EXPECT_EQ(err_, "");
  EXPECT_EQ(out_,
            "flows: 3 added, 1 changed, 2 removed, 12 unchanged\n"
            "2 builds in 2.10 ms, 3.00 s in all\n");
  run("flows add actions=drop --verbose");
  EXPECT_EQ(out_,
            "flows: 3 added, 1 changed, 2 removed, 12 unchanged\n"
            "2 builds in 2.10 ms, 3.00 s in all\n"
            "  table 3 IPv4: 16 rules (4 adds, 1 delete), 1.25 ms\n"
            "  table 0 IPv6: 1 rule (1 add, 0 deletes), 850 us\n");
  run("flows add actions=drop --json");
  EXPECT_EQ(json()["added"], 3);
  EXPECT_EQ(json()["builds"][1],
            nlohmann::ordered_json::parse(
                R"({"table":0,"ipv6":true,"flows":1,"adds":1,"deletes":0,
                    "timeNs":850000,"failure":"","isInverse":false})"));
}

TEST_F(FlowsCommand, SendsFlowsOfArgumentsAndFilesInOneRequest) {
  write("a.txt",
        "\xef\xbb\xbf# caf\xe9\nactions=drop\r\n\ntable=1,actions=drop");
  run("flows add in_port=1,actions=drop 'in_port=2, actions=drop' "
      "--file a.txt --file - --reset-counts",
      "echo ip,actions=drop |");
  EXPECT_EQ(status_, 0) << err_;
  EXPECT_EQ(fake_.change.operation(), pb::FLOW_OPERATION_ADD);
  EXPECT_EQ(fake_.change.text(),
            "in_port=1,actions=drop\n"
            "in_port=2, actions=drop\n"
            "\nactions=drop\r\n\ntable=1,actions=drop\n"
            "ip,actions=drop\n");
  EXPECT_EQ(fake_.change.text_name(), "command line");
  EXPECT_TRUE(fake_.change.reset_counts());

  run("flows add in_port=1,actions=drop");
  EXPECT_EQ(fake_.change.text_name(), "command line");
  run("flows add --file a.txt");
  EXPECT_EQ(fake_.change.text_name(), "a.txt");
  EXPECT_FALSE(fake_.change.reset_counts());
  run("flows add -", "echo ip,actions=drop |");
  EXPECT_EQ(fake_.change.text_name(), "standard input");
  EXPECT_EQ(fake_.change.text(), "ip,actions=drop\n");
}

TEST_F(FlowsCommand, SendsWhatIsNotAsciiSoThatItIsRefusedAndQuoted) {
  run("flows add $(printf 'n\\351,actions=drop')");
  EXPECT_EQ(status_, 0) << err_;
  EXPECT_EQ(fake_.change.text(), "n\\xe9,actions=drop\n");
}

TEST_F(FlowsCommand, ShowsABarOnATerminalWhenItTakesLong) {
  pb::FlowProgress progress;
  progress.set_done(1);
  progress.set_total(4);
  fake_.progress = {progress};
  fake_.changeTime = std::chrono::milliseconds(2600);
  // script(1) gives it a terminal.
  run("", "script -qec '" OFSWITCH " flows add a' /dev/null < /dev/null; true");
  EXPECT_THAT(out_, HasSubstr("\rchanging flows [##########" +
                              std::string(30, ' ') + "]  25% 2 s\033[K"));
  // Wiped before the answer.
  EXPECT_THAT(out_, HasSubstr("\r\033[Kflows: 0 added"));
  run("flows add a");
  EXPECT_EQ(err_, "");
}

TEST_F(FlowsCommand, TellsOfFilesThatCannotBeRead) {
  run("flows add --file nowhere.txt");
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(err_,
            "ofswitch: nowhere.txt: cannot open: No such file or directory\n");
  run("flows replace .");
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(err_, "ofswitch: .: cannot be read: Is a directory\n");
  write("flows.txt", "actions=drop\n");
  run("flows add flows.txt");
  EXPECT_EQ(status_, 2);
  EXPECT_EQ(err_,
            "ofswitch: flows add: flows.txt is a file, no flow; say --file "
            "flows.txt\n");
  EXPECT_EQ(fake_.change.operation(), pb::FLOW_OPERATION_UNSPECIFIED);
}

TEST_F(FlowsCommand, TellsHowLongAFileMayBe) {
  std::string text;
  while (text.size() < 100'000'000) text += std::string(999'999, 'x') + '\n';
  write("long.txt", text);
  run("flows add --file long.txt");
  EXPECT_EQ(status_, 1);
  EXPECT_THAT(err_, testing::MatchesRegex(
                        "ofswitch: flows: 10000[0-9]+ bytes of flow text, at "
                        "most 67108864 are taken at once; split the file and "
                        "use \"flows add\" for each part, or look with "
                        "\"ofswitch check\" whether it holds flows at all\n"));
  run("flows add --file /dev/zero");
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(err_,
            "ofswitch: /dev/zero:1: a line of more than 1048576 characters; no "
            "more is read\n");
}

TEST_F(FlowsCommand, DeletesWhatFiltersSelect) {
  run("flows del --strict table=3,priority=7,tcp in_port=1");
  EXPECT_EQ(status_, 0) << err_;
  EXPECT_EQ(fake_.change.operation(), pb::FLOW_OPERATION_DELETE);
  EXPECT_TRUE(fake_.change.strict());
  EXPECT_EQ(fake_.change.text(), "table=3,priority=7,tcp\nin_port=1\n");
  write("filters.txt", "# two of them\ntcp\n \nudp\n");
  run("flows del --file filters.txt");
  EXPECT_EQ(status_, 0) << err_;
  EXPECT_EQ(fake_.change.text(), "\ntcp\n \nudp\n");
  refuse(2, "no such field");
  run("flows del tcp foo=1");
  EXPECT_EQ(err_,
            "filter 2: no such field\n"
            "ofswitch: nothing was changed: 1 line refused\n");
}

TEST_F(FlowsCommand, DeletesEverythingOnlyWhenTold) {
  run("flows del");
  EXPECT_EQ(status_, 2);
  EXPECT_EQ(err_,
            "ofswitch: flows del: say which: FILTER, --file FILE, or --all "
            "for every flow\n");
  write("empty.txt", "# nothing\n\n");
  for (const char* nothing :
       {"''", "' '", ",", "tcp ,", "'# all'", "$(printf '\\n,')",
        "--file empty.txt", "--file /dev/null"}) {
    run(std::string("flows del ") + nothing);
    EXPECT_EQ(status_, 1) << nothing;
    EXPECT_EQ(err_,
              "ofswitch: flows del: an empty filter selects every flow; say "
              "--all if that is meant\n");
  }
  EXPECT_EQ(fake_.change.operation(), pb::FLOW_OPERATION_UNSPECIFIED);

  run("flows del --all tcp");
  EXPECT_EQ(status_, 2);
  EXPECT_EQ(err_, "ofswitch: flows del: --all goes without a filter\n");
  run("flows del --all --strict");
  EXPECT_EQ(status_, 2);
  EXPECT_EQ(err_, "ofswitch: --strict excludes --all\n");
  EXPECT_EQ(fake_.change.operation(), pb::FLOW_OPERATION_UNSPECIFIED);

  run("flows del --all");
  EXPECT_EQ(status_, 0) << err_;
  EXPECT_EQ(fake_.change.operation(), pb::FLOW_OPERATION_DELETE);
  EXPECT_EQ(fake_.change.text(), "");
}

TEST_F(FlowsCommand, ReplacesAllFlowsUnlessThereAreNone) {
  write("flows.txt", "actions=drop\n");
  run("flows replace flows.txt");
  EXPECT_EQ(status_, 0) << err_;
  EXPECT_EQ(fake_.change.operation(), pb::FLOW_OPERATION_REPLACE);
  EXPECT_EQ(fake_.change.text(), "actions=drop\n");
  fake_.change.Clear();
  run("flows replace -", "echo '# none' |");
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(err_,
            "ofswitch: flows replace: there is no flow, so that every flow "
            "would go; say flows del --all if that is meant\n");
  run("flows add ''");
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(err_, "ofswitch: flows add: there is no flow to add\n");
  EXPECT_EQ(fake_.change.operation(), pb::FLOW_OPERATION_UNSPECIFIED);
}

TEST_F(FlowsCommand, ListsFlowsAsTheSwitchWritesThem) {
  for (const char* text : {"cookie=0x1, table=0, actions=drop",
                           "cookie=0x2, table=1, actions=drop"}) {
    pb::FlowEntry entry;
    entry.set_text(text);
    entry.set_cookie(~uint64_t{0});
    entry.add_actions("drop");
    fake_.flows.push_back(entry);
  }
  run("flows dump table=3 tcp --strict --no-stats --built-in");
  EXPECT_EQ(status_, 0) << err_;
  EXPECT_EQ(out_,
            "cookie=0x1, table=0, actions=drop\n"
            "cookie=0x2, table=1, actions=drop\n");
  EXPECT_EQ(fake_.filter.text(), "table=3,tcp");
  EXPECT_TRUE(fake_.filter.strict());
  EXPECT_TRUE(fake_.filter.no_stats());
  EXPECT_TRUE(fake_.filter.with_built_in());
  run("flows dump --json");
  ASSERT_EQ(json().size(), 2u);
  EXPECT_EQ(json()[1]["text"], "cookie=0x2, table=1, actions=drop");
  EXPECT_EQ(json()[1]["cookie"], ~uint64_t{0});
  EXPECT_EQ(json()[1]["actions"], nlohmann::ordered_json::array({"drop"}));
  EXPECT_EQ(json()[1]["nPackets"], 0);
  EXPECT_FALSE(fake_.filter.strict());
}

TEST_F(FlowsCommand, ListsNothing) {
  run("flows dump");
  EXPECT_EQ(status_, 0);
  EXPECT_EQ(out_, "");
  run("flows dump --json");
  EXPECT_EQ(out_, "[]\n");
}

TEST_F(FlowsCommand, EndsQuietlyWhenNobodyReadsOn) {
  fake_.flows.resize(100'000);
  for (pb::FlowEntry& flow : fake_.flows) {
    flow.set_text("table=0, priority=1 actions=drop");
  }
  run("flows dump | head -1");
  EXPECT_EQ(out_, "table=0, priority=1 actions=drop\n");
  EXPECT_EQ(err_, "");
  // Also where the signal is ignored and writing fails instead.
  run("flows dump | head -1", "trap '' PIPE;");
  EXPECT_EQ(out_, "table=0, priority=1 actions=drop\n");
  EXPECT_EQ(err_, "");
}

TEST_F(FlowsCommand, RepeatsWhatIsWrongWithAFilter) {
  fake_.status = {grpc::StatusCode::INVALID_ARGUMENT,
                  "foo=1: unknown field \"foo\""};
  run("flows dump foo=1");
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(out_, "");
  EXPECT_EQ(err_, "ofswitch: foo=1: unknown field \"foo\"\n");
}

TEST_F(FlowsCommand, TellsWhereItLookedForASwitch) {
  run("flows dump --socket /nowhere/c.sock");
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(err_,
            "ofswitch: control socket /nowhere/c.sock: does not exist: no "
            "switch runs there; start one with \"ofswitch run -c "
            "switch.yaml\", or say --socket PATH\n");
}

TEST_F(FlowsCommand, ExitsWith2WhenItIsUsedWrongly) {
  const auto use = [this](const std::string& arguments) {
    run(arguments);
    EXPECT_EQ(status_, 2) << arguments;
    return err_;
  };
  EXPECT_EQ(use("flows"),
            "ofswitch flows: say a command, see ofswitch flows --help\n");
  EXPECT_EQ(use("flows --foo"),
            "ofswitch flows: unknown option \"--foo\", see ofswitch flows "
            "--help\n");
  EXPECT_EQ(use(""), "ofswitch: say a command, see ofswitch --help\n");
  EXPECT_EQ(use("flows list"),
            "ofswitch flows: unknown command \"list\", see ofswitch flows "
            "--help\n");
  EXPECT_EQ(use("flow"),
            "ofswitch: unknown command \"flow\", did you mean \"flows\"?\n");
  EXPECT_EQ(use("flows add"),
            "ofswitch: flows add: say FLOW, or --file FILE\n");
  EXPECT_EQ(use("flows add --tls-ca x --address y"),
            "ofswitch: --tls-ca requires --tls-key\n");
  EXPECT_THAT(use("flows dump --address a:1 --socket b"),
              HasSubstr("excludes"));
  EXPECT_EQ(use("flows dump --bogus"),
            "ofswitch flows dump: unknown option \"--bogus\", see ofswitch "
            "flows dump --help\n");
  EXPECT_EQ(use("flows dump --strikt"),
            "ofswitch flows dump: unknown option \"--strikt\", did you mean "
            "\"--strict\"?\n");
  EXPECT_EQ(use("--socket c.sock flows dump"),
            "ofswitch: unknown option \"--socket\"; options stand behind the "
            "command\n");
  EXPECT_EQ(use("replay --flow f.txt --in 1=a.pcap"),
            "ofswitch replay: unknown option \"--flow\", did you mean "
            "\"--flows\"?\n");
  EXPECT_EQ(use("run switch.yaml now"),
            "ofswitch run: unknown argument \"switch.yaml\", see ofswitch run "
            "--help\n");
}

TEST_F(FlowsCommand, HelpsWithExamples) {
  for (const char* command :
       {"flows add", "flows del", "flows replace", "flows dump"}) {
    run(std::string(command) + " --help");
    EXPECT_EQ(status_, 0);
    EXPECT_EQ(err_, "");
    EXPECT_THAT(out_, HasSubstr("Examples:\n  ofswitch flows")) << command;
    EXPECT_THAT(out_, HasSubstr("--json")) << command;
    EXPECT_THAT(out_, HasSubstr("--socket PATH")) << command;
  }
}

}  // namespace
}  // namespace ofswitch
