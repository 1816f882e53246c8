// SPDX-License-Identifier: BSD-3-Clause
//
// What whoever waits at a terminal sees of "ofswitch replay".
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/switch/replay_command.h"

namespace openflow_test {
namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

class ReplayProgress : public ReplayCommand {
 protected:
  // Replays what a pipe gives until `enough` holds, or for a minute, "in"
  // script(1), which makes a terminal of all that it starts.
  std::string printedByASlowReplay(const std::string& enough,
                                   const std::string& errorsTo) {
    write("flows.txt", "actions=output:2\n");
    capture("in.pcap", {row(1, Frame::eth().ipv4(1, 2).udp(3, 4))});
    write("packets",
          "head -c 24 in.pcap\n"
          "for i in $(seq 600); do\n"
          "  tail -c +25 in.pcap; sleep 0.1\n"
          "  if " +
              enough +
              "; then break; fi\n"
              "done\n");
    write("slow", "sh packets | " OFSWITCH
                  " replay --flows flows.txt --in 1=/dev/stdin " +
                      errorsTo + "\n");
    const std::string command =
        "cd " + folder_.path().string() +
        " && script -qec 'sh slow' /dev/null < /dev/null > stdout";
    EXPECT_EQ(std::system(command.c_str()), 0);
    return readFile(folder_ / "stdout");
  }
};

// A pipe does not tell how much there is of it.
TEST_F(ReplayProgress, IsShownOnATerminalWhenItTakesLong) {
  const std::string printed =
      printedByASlowReplay("grep -q Replaying stdout", "");
  EXPECT_THAT(printed, ContainsRegex("\rReplaying: [0-9]+ s\033\\[K"));
  EXPECT_THAT(printed, Not(ContainsRegex("Replaying: [01] s")));
  // Wiped before the report.
  EXPECT_THAT(printed, HasSubstr("\r\033[KTables: "));
}

TEST_F(ReplayProgress, IsNotWrittenToAFile) {
  printedByASlowReplay("[ $i = 30 ]", "2> errors");
  EXPECT_EQ(readFile(folder_ / "errors"), "");
}

}  // namespace
}  // namespace openflow_test
