// SPDX-License-Identifier: BSD-3-Clause
//
// Whole files and the words about a flow itself.
#include "switch/flow/flow_reader.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "switch/flow/action_parser.h"
#include "switch/flow/flow_printer.h"
#include "switch/flow/match_parser.h"
#include "tests/switch/flow_texts.h"

namespace ofswitch {
namespace {

FlowFile readText(const std::string& text) {
  std::istringstream in(text);
  return FlowReader().read(in, "flows.txt");
}

std::vector<std::string> texts(const std::vector<Diagnostic>& diagnostics) {
  std::vector<std::string> lines;
  for (const Diagnostic& one : diagnostics) lines.push_back(one.text());
  return lines;
}

TEST(FlowReader, HasTheDefaultsOfOvsOfctl) {
  const Flow flow = FlowReader().readLine("actions=drop");
  EXPECT_EQ(flow.table, 0);
  EXPECT_EQ(flow.priority, 32768);
  EXPECT_EQ(flow.cookie, 0u);
  EXPECT_EQ(flow.match, Match{});
}

TEST(FlowReader, TakesWordsInAnyOrderAndNotation) {
  const Flow flow = FlowReader().readLine(
      "cookie=0xabc priority=0x10\ttp_dst=80, table=07,tcp,, action=output=2");
  EXPECT_EQ(flow.table, 7);
  EXPECT_EQ(flow.priority, 16);
  EXPECT_EQ(flow.cookie, 0xabcu);
  EXPECT_EQ(flowText(flow),
            "table=7,priority=16,cookie=0xabc,tcp,tp_dst=80,"
            "actions=output:2");
}

TEST(FlowReader, TakesWhatOtherSystemsAddToTextFiles) {
  const FlowFile file =
      readText("\xef\xbb\xbftable=1,actions=drop\r\n\r\nactions=output:2\r\n");
  EXPECT_EQ(texts(file.refusals), std::vector<std::string>());
  ASSERT_EQ(file.flows.size(), 2u);
  EXPECT_EQ(flowText(file.flows[0]), "table=1,priority=32768,actions=drop");
  EXPECT_EQ(flowText(file.flows[1]), "table=0,priority=32768,actions=output:2");
  EXPECT_EQ(file.flows[1].line, 3);
  // The mark is one only at the start of a file.
  EXPECT_EQ(readText("\n\xef\xbb\xbf"
                     "actions=drop\n")
                .refusals.size(),
            1u);
}

TEST(FlowReader, TellsOfActionsThatAreMissingOrMistyped) {
  EXPECT_EQ(
      texts(readText("in_port=1\n"
                     "in_port=1,output:2\n"
                     "in_port=1 acitons=drop\n"
                     "ip actions:drop\n"
                     "tcp,actions\n")
                .refusals),
      (std::vector<std::string>{
          "flows.txt:1: no actions; write actions=drop for a flow that drops",
          "flows.txt:2: no actions; write actions=drop for a flow that drops",
          "flows.txt:3: unknown field \"acitons\", did you mean \"actions\"?",
          "flows.txt:4: actions:drop: write \"actions=\" before the actions",
          "flows.txt:5: actions: write \"actions=\" before the actions"}));
}

TEST(FlowReader, QuotesLongWordsInPart) {
  const std::string longWord(10'000, 'x');
  const std::string shown = std::string(80, 'x') + "...";
  EXPECT_EQ(texts(readText(longWord +
                           ",actions=drop\n"
                           "priority=" +
                           longWord +
                           ",actions=drop\n"
                           "actions=" +
                           longWord + "\n")
                      .refusals),
            (std::vector<std::string>{
                "flows.txt:1: unknown field \"" + shown + "\"",
                "flows.txt:2: priority=" + shown.substr(9) + ": \"" + shown +
                    "\" is not a number",
                "flows.txt:3: unknown action \"" + shown + "\""}));
}

TEST(FlowReader, ReadsADumpBack) {
  const FlowFile file = readText(
      "NXST_FLOW reply (xid=0x4):\n"
      "OFPST_FLOW reply (OF1.3) (xid=0x2):\n"
      " cookie=0x5, duration=12.3s, table=2, n_packets=7, n_bytes=99, "
      "idle_age=3, hard_age=4, priority=100,ip,nw_dst=10.0.0.0/24 "
      "actions=IN_PORT,output:2\n");
  ASSERT_EQ(texts(file.refusals), std::vector<std::string>{});
  ASSERT_EQ(file.flows.size(), 1u);
  EXPECT_EQ(flowText(file.flows[0]),
            "table=2,priority=100,cookie=0x5,ip,nw_dst=10.0.0.0/24,"
            "actions=in_port,output:2");
}

TEST(FlowReader, KeepsTheLineOfEachFlow) {
  const FlowFile file = readText(
      "# a comment\n"
      "\n"
      "   tcp,actions=drop   # why\r\n"
      "actions=output:1");
  ASSERT_TRUE(file.ok());
  ASSERT_EQ(file.flows.size(), 2u);
  EXPECT_EQ(file.flows[0].file, "flows.txt");
  EXPECT_EQ(file.flows[0].line, 3);
  EXPECT_EQ(file.flows[0].text, "tcp,actions=drop");
  EXPECT_EQ(file.flows[1].line, 4);
}

TEST(FlowReader, ShowsEveryRefusal) {
  const FlowFile file = readText(
      "nw_dts=1.2.3.4,actions=drop\n"
      "actions=drop\n"
      "actions=otput:1\n");
  EXPECT_FALSE(file.ok());
  EXPECT_EQ(file.flows.size(), 1u);
  EXPECT_EQ(
      texts(file.refusals),
      (std::vector<std::string>{
          "flows.txt:1: unknown field \"nw_dts\", did you mean \"nw_dst\"?",
          "flows.txt:3: unknown action \"otput\", did you mean \"output\"?"}));
}

TEST(FlowReader, ShowsNoControlCharacters) {
  EXPECT_EQ(
      texts(readText("\x1b[2J=1,actions=drop\n").refusals),
      (std::vector<std::string>{"flows.txt:1: unknown field \"\\x1b[2J\""}));
  EXPECT_EQ(printable("\x01\x1f ~\x7f\u00e4\n"),
            "\\x01\\x1f ~\\x7f\u00e4\\x0a");
}

// The reason quoted the word, which ended at the zero byte: at times before its
// first letter.
TEST(FlowReader, RefusesZeroBytes) {
  std::istringstream in(std::string("table=2,\0x,actions=drop\n", 24));
  const FlowFile file = FlowReader().read(in, "f");
  ASSERT_EQ(file.refusals.size(), 1u);
  EXPECT_EQ(file.refusals[0].text(),
            "f:1: a zero byte in the line; flow files are text");
}

// A capture that was named by mistake used to be refused line by line.
TEST(FlowReader, EndsAtALineThatIsNoText) {
  const std::string text = "nonsense\n" + std::string(3, '\0') + "\nnonsense\n";
  std::istringstream in(text);
  EXPECT_EQ(texts(FlowReader().read(in, "f").refusals),
            (std::vector<std::string>{
                "f:1: no actions; write actions=drop for a flow that drops",
                "f:2: a zero byte in the line; flow files are text"}));
}

TEST(FlowReader, TellsHowFarItIs) {
  const std::string path = testing::TempDir() + "/flow_reader_progress.txt";
  std::string text;
  for (int i = 0; i < 2500; i++) text += "actions=drop\n";
  std::ofstream(path) << text;
  std::vector<std::pair<uint64_t, uint64_t>> steps;
  const FlowFile file =
      FlowReader({.progress = [&](uint64_t done, uint64_t total) {
        steps.emplace_back(done, total);
      }}).read(path);
  std::remove(path.c_str());
  EXPECT_EQ(file.flows.size(), 2500u);
  EXPECT_EQ(steps, (std::vector<std::pair<uint64_t, uint64_t>>{
                       {1024 * 13, 2500 * 13}, {2048 * 13, 2500 * 13}}));
}

TEST(FlowReader, RefusesAFolder) {
  const FlowFile file = FlowReader().read("/tmp");
  EXPECT_EQ(texts(file.refusals),
            (std::vector<std::string>{"/tmp: cannot be read: Is a directory"}));
}

TEST(FlowReader, EndsAtALineThatDoesNotEnd) {
  const FlowFile file = FlowReader().read("/dev/zero");
  EXPECT_TRUE(file.flows.empty());
  EXPECT_EQ(texts(file.refusals),
            (std::vector<std::string>{
                "/dev/zero:1: a line of more than 1048576 characters; no more "
                "is read"}));
}

TEST(FlowReader, NamesAFileThatItCannotOpen) {
  const FlowFile file = FlowReader().read("/nonexistent/flows.txt");
  EXPECT_EQ(texts(file.refusals),
            (std::vector<std::string>{"/nonexistent/flows.txt: cannot open: "
                                      "No such file or directory"}));
}

TEST(FlowReader, RefusesWhatAFlowCannotBe) {
  EXPECT_EQ(refusalOf("table=32,actions=drop"),
            "table=32: tables are numbers from 0 to 31");
  EXPECT_EQ(refusalOf("table=all,actions=drop"),
            "table=all: tables are numbers from 0 to 31");
  EXPECT_EQ(refusalOf("priority=65536,actions=drop"),
            "priority=65536: 65536 is above 65535");
  EXPECT_EQ(refusalOf("cookie=1/1,actions=drop"),
            "cookie=1/1: a cookie mask selects flows, it cannot be added");
  EXPECT_EQ(refusalOf("priority=1,priority=1,actions=drop"),
            "priority=1: priority stands in the flow twice");
  EXPECT_EQ(refusalOf("importance=1,actions=drop"),
            "importance=1: flows are never evicted here; leave it out");
  EXPECT_EQ(refusalOf("send_flow_rem,actions=drop"),
            "send_flow_rem: nobody is told of removed flows here; leave it "
            "out");
  EXPECT_EQ(refusalOf("check_overlap,actions=drop"),
            "check_overlap: overlaps are not looked for; leave it out");
  EXPECT_EQ(refusalOf("out_port=1,actions=drop"),
            "out_port=1: it selects flows to delete, not to add; leave it "
            "out");
}

TEST(FlowReader, TakesTimeoutsWhereFlowsMayExpire) {
  EXPECT_EQ(refusalOf("idle_timeout=60,actions=drop"),
            "idle_timeout=60: a capture is replayed faster than its clock, "
            "so flows do not expire; leave it out");
  EXPECT_EQ(refusalOf("hard_timeout=60,actions=drop"),
            "hard_timeout=60: a capture is replayed faster than its clock, "
            "so flows do not expire; leave it out");
  EXPECT_EQ(refusalOf("idle_timeout=0,hard_timeout=0,actions=drop"), "");

  const Flow flow = FlowReader({.allowTimeouts = true})
                        .readLine(
                            "idle_timeout=60,hard_timeout=90,"
                            "actions=drop");
  EXPECT_EQ(flow.idleTimeout, 60);
  EXPECT_EQ(flow.hardTimeout, 90);
  EXPECT_EQ(flowText(flow),
            "table=0,priority=32768,idle_timeout=60,hard_timeout=90,"
            "actions=drop");
}

// Lines of words that are mostly right, put together at random: each is
// refused with a sentence, or means a flow whose normal form means the same.
class RandomLine {
 public:
  explicit RandomLine(unsigned seed) : random_(seed) {}

  std::string next() {
    std::string line = words(matchWords(), kMatchValues);
    if (pick(50) == 0) return line;
    return line + " actions=" + words(actionWords(), kActionValues);
  }

 private:
  static constexpr const char* kMatchValues[] = {"=1",
                                                 "=0",
                                                 "=0x800",
                                                 "=10.0.0.1/8",
                                                 "=02:00:00:00:00:01",
                                                 "=2001:db8::/32",
                                                 "=+syn-ack",
                                                 "=0/0xfe",
                                                 "=64",
                                                 "=",
                                                 "",
                                                 "",
                                                 "",
                                                 "(",
                                                 ")",
                                                 "=/",
                                                 "=0x1064"};
  static constexpr const char* kActionValues[] = {":1",
                                                  ":2",
                                                  "",
                                                  "",
                                                  "",
                                                  ":02:00:00:00:00:01",
                                                  ":10.0.0.1",
                                                  ":0x8100",
                                                  "(reason=no_match)",
                                                  ":5->nw_ttl",
                                                  ":5->vlan_vid",
                                                  ":9->vlan_pcp",
                                                  "(,3)",
                                                  "(",
                                                  ":",
                                                  ":->",
                                                  ":40",
                                                  "(output:1)"};

  size_t pick(size_t below) {
    return std::uniform_int_distribution<size_t>(0, below - 1)(random_);
  }

  template <size_t N>
  std::string words(const std::vector<std::string_view>& names,
                    const char* const (&values)[N]) {
    std::string text;
    for (size_t n = pick(5); n > 0; n--) {
      if (!text.empty()) text += pick(9) == 0 ? " " : ",";
      text += names[pick(names.size())];
      text += values[pick(N)];
      if (pick(40) == 0) text += static_cast<char>(pick(256));
    }
    return text;
  }

  std::mt19937 random_;
};

TEST(FlowReader, TakesOrRefusesAnyLine) {
  RandomLine lines(1);
  int accepted = 0;
  for (int i = 0; i < 60000; i++) {
    const std::string line = lines.next();
    const FlowReader reader;
    try {
      const Flow flow = reader.readLine(line);
      accepted++;
      ASSERT_EQ(reader.readLine(flowText(flow)), flow) << line << "\n"
                                                       << flowText(flow);
    } catch (const Refused& refused) {
      ASSERT_STRNE(refused.what(), "") << line;
    }
  }
  EXPECT_GT(accepted, 1000);
}

TEST(FlowReader, TakesOrRefusesAnyBytes) {
  std::mt19937 random(2);
  const std::string alphabet = "actions=output:1,(tcp)/[]->.|+-0x9\"\\ \t\xff";
  for (int i = 0; i < 20000; i++) {
    std::string line;
    for (unsigned n = random() % 40; n > 0; n--) {
      line += alphabet[random() % alphabet.size()];
    }
    try {
      FlowReader().readLine("actions=" + line);
      FlowReader().readLine(line + "actions=drop");
    } catch (const Refused& refused) {
      ASSERT_STRNE(refused.what(), "") << line;
    }
  }
}

}  // namespace
}  // namespace ofswitch
