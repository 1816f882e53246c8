// SPDX-License-Identifier: BSD-3-Clause
//
// The program "ofswitch replay" with what cannot work: one line that says what
// and where, an exit status of 1, and nothing half done.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/support/programs_may_leak.h"
#include "tests/switch/explosive_flows.h"
#include "tests/switch/replay_command.h"

namespace openflow_test {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::SizeIs;
using testing::StartsWith;

Frame udp(uint16_t port) {
  return Frame::eth().ipv4(ip4("10.0.0.1"), ip4("10.0.0.2")).udp(5, port);
}

struct ErrorCase {
  const char* name;
  const char* arguments;
  const char* error;
};

class ReplayErrors : public ReplayCommand,
                     public testing::WithParamInterface<ErrorCase> {
 protected:
  void SetUp() override {
    write("good.txt", "actions=output:2\n");
    write("bad.txt", "\nnw_dts=10.0.0.1,actions=output:2\n");
    write("bad.json", R"([{"updateFlows": {"tableId": 32}}])");
    write("broken.json", "[\n");
    capture("in.pcap", {row(1, udp(1))});
    write("raw.pcap", captureBytes({}, CaptureFormat::kPcapNano, kLinkRaw));
    write("text.pcap", "no capture at all, only text");
  }
};

TEST_P(ReplayErrors, OneLineSaysWhatAndWhere) {
  replay(GetParam().arguments);
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(stderr_, std::string(GetParam().error) + "\n");
  EXPECT_EQ(stdout_, "");
  EXPECT_TRUE(stats_.is_null());
  EXPECT_FALSE(exists("out/port-2.pcap"));
}

INSTANTIATE_TEST_SUITE_P(
    Arguments, ReplayErrors,
    testing::Values(
        ErrorCase{"MissingCapture", "--flows good.txt --in 1=none.pcap",
                  "none.pcap: No such file or directory"},
        ErrorCase{"NoCapture", "--flows good.txt --in 1=text.pcap",
                  "text.pcap: unknown file format"},
        ErrorCase{"NoEthernet", "--flows good.txt --in 1=raw.pcap",
                  "raw.pcap: link type RAW: only Ethernet captures can be "
                  "read"},
        ErrorCase{"MissingFlows", "--flows none.txt --in 1=in.pcap",
                  "none.txt: cannot open: No such file or directory"},
        ErrorCase{"BadFlow", "--flows good.txt bad.txt --in 1=in.pcap",
                  "bad.txt:2: unknown field \"nw_dts\", did you mean "
                  "\"nw_dst\"?"},
        ErrorCase{"BadCommand", "--flows bad.json --in 1=in.pcap",
                  "bad.json:1:2: command 0: updateFlows: tableId: 32 must be "
                  "below 32"},
        ErrorCase{"OutDirUnderAFile",
                  "--flows good.txt --in 1=in.pcap --out-dir good.txt/out",
                  "--out-dir good.txt/out: Not a directory"},
        ErrorCase{"OutDirUnwritable",
                  "--flows good.txt --in 1=in.pcap --out-dir /proc",
                  "--out-dir /proc: No such file or directory"},
        ErrorCase{"MissingModule",
                  "--flows good.txt --in 1=in.pcap --module none.so",
                  "none.so: No such file or directory"},
        ErrorCase{"StatsOverInput",
                  "--flows good.txt --in 1=in.pcap --stats in.pcap",
                  "in.pcap: is read, and would be overwritten"},
        ErrorCase{"StatsOverFlows",
                  "--flows good.txt --in 1=in.pcap --stats good.txt",
                  "good.txt: is read, and would be overwritten"}),
    [](const auto& one) { return one.param.name; });

TEST_F(ReplayErrors, OutputsThatCannotBeWrittenAreFoundBeforeTheWork) {
  std::filesystem::create_directories(folder_ / "out" / "port-2.pcap");
  replay(
      "--flows good.txt --in 1=in.pcap --out-dir out --stats nowhere/s.json");
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(stdout_, "");
  EXPECT_EQ(stderr_,
            "nowhere/s.json: No such file or directory\n"
            "out/port-2.pcap: is a directory\n");
  EXPECT_TRUE(exists("out/port-2.pcap"));
  replay("--flows good.txt --in 1=in.pcap --stats out");
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(stderr_, "out: Is a directory\n");
  EXPECT_EQ(stdout_, "");
}

TEST_F(ReplayErrors, OutputsDoNotReplaceWhatIsRead) {
  std::filesystem::create_directories(folder_ / "out");
  for (const char* name : {"controller", "port-1", "port-2"}) {
    std::filesystem::copy_file(folder_ / "in.pcap",
                               folder_ / "out" / (name + std::string(".pcap")));
  }
  for (const char* name : {"controller", "port-1"}) {
    const std::string file = std::string("out/") + name + ".pcap";
    replay("--flows good.txt --in 1=" + file + " --out-dir out");
    EXPECT_EQ(status_, 1);
    EXPECT_EQ(stderr_, file + ": is read, and would be overwritten\n");
  }
}

TEST_F(ReplayErrors, AnInputThatIsNoPortAndFileIsAWrongCommandLine) {
  const std::pair<const char*, const char*> kInputs[] = {
      {"in.pcap", "in.pcap: must be PORT=FILE"},
      {"1=", "1=: must be PORT=FILE"},
      {"0=in.pcap", "0=in.pcap: port must be 1 to 8191"},
      {"8192=in.pcap", "8192=in.pcap: port must be 1 to 8191"},
      {"1x=in.pcap", "1x=in.pcap: port must be 1 to 8191"},
      {"x1=in.pcap", "x1=in.pcap: port must be 1 to 8191"}};
  for (const auto& [input, error] : kInputs) {
    replay(std::string("--flows good.txt --in ") + input);
    EXPECT_EQ(status_, 2);
    EXPECT_EQ(stderr_, std::string("ofswitch: --in: ") + error + "\n");
    EXPECT_EQ(stdout_, "");
  }
}

// What a run leaves that was interrupted has another name.
TEST_F(ReplayErrors, ACaptureHasItsNameWhenItIsWhole) {
  write("out.txt", "actions=output:2\n");
  std::filesystem::create_directories(folder_ / "out");
  std::filesystem::create_directories(folder_ / "out" / "port-2.pcap.part");
  replay("--flows good.txt --in 1=in.pcap --out-dir out");
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(stderr_, "out/port-2.pcap.part: is a directory\n");
  std::filesystem::remove(folder_ / "out" / "port-2.pcap.part");
  replayWell("--flows good.txt --in 1=in.pcap --out-dir out");
  EXPECT_THAT(written("out/port-2.pcap"), SizeIs(1));
  EXPECT_FALSE(exists("out/port-2.pcap.part"));
}

TEST_F(ReplayErrors, AFlowToAPortThatIsNotConnectedIsNoted) {
  write("flows.txt",
        "tcp,actions=output:2,output:9\nudp,actions=output:8,controller\n"
        "icmp,actions=output:1\n");
  replay("--flows flows.txt --in 1=in.pcap --ports 1,2");
  EXPECT_EQ(status_, 0);
  EXPECT_EQ(
      stderr_,
      "flows.txt:1: note: output:9: port 9 is not connected, what is sent "
      "there goes nowhere\n"
      "flows.txt:2: note: output:8: port 8 is not connected, what is sent "
      "there goes nowhere\n");
}

// It is always there; a command list that names it asks for no second one.
TEST_F(ReplayErrors, GateZeroOfACommandListIsTheController) {
  write("list.json", R"([{"updateFlows": {"adds": [
      {"flowId": 7, "priority": 5, "action": {
          "fields": {"setOutputPort": true}, "values": {"ogate": [0, 2]}}}]}}])");
  replayWell("--flows list.json --in 1=in.pcap --out-dir out");
  EXPECT_THAT(written("out/controller.pcap"), SizeIs(1));
  EXPECT_THAT(written("out/port-2.pcap"), SizeIs(1));
}

TEST_F(ReplayErrors, WrongUseIsTold) {
  for (const char* wrong : {"", "--flows good.txt", "--bogus",
                            "--flows good.txt --in 1=in.pcap --workers 0"}) {
    replay(wrong);
    EXPECT_EQ(status_, 2) << wrong;
    EXPECT_EQ(std::count(stderr_.begin(), stderr_.end(), '\n'), 1) << stderr_;
  }
}

TEST_F(ReplayErrors, FlowsCanComeFromStandardInput) {
  replayWell("--flows - --in 1=in.pcap < good.txt");
  EXPECT_EQ(packetsOf("standard input:1"), 1);
}

// An empty text says nothing about table 0 when commands do.
TEST_F(ReplayErrors, NoFlowIsAddedToTablesOfCommandLists) {
  write("empty.txt", "# none\n");
  write("list.json", R"([{"getStats": {"tableId": 0}}])");
  replay("--flows list.json empty.txt --in 1=in.pcap");
  EXPECT_EQ(table(0)["numFlows"], 0) << stats_;
}

TEST_F(ReplayErrors, AllThatIsWrongIsShownAtOnce) {
  replay("--flows bad.txt bad.json --in 1=none.pcap 2=raw.pcap");
  EXPECT_EQ(status_, 1);
  EXPECT_THAT(stderr_, HasSubstr("none.pcap: "));
  EXPECT_THAT(stderr_, HasSubstr("raw.pcap: "));
  EXPECT_THAT(stderr_, HasSubstr("bad.txt:2: "));
  EXPECT_THAT(stderr_, HasSubstr("bad.json:1:2: "));
  EXPECT_EQ(std::count(stderr_.begin(), stderr_.end(), '\n'), 4);
}

TEST_F(ReplayErrors, AModuleThatIsNoneIsRefused) {
  write("not.so", "no library");
  replay("--flows good.txt --in 1=in.pcap --module not.so");
  EXPECT_EQ(status_, 1);
  EXPECT_THAT(stderr_, HasSubstr("not.so"));
  EXPECT_EQ(std::count(stderr_.begin(), stderr_.end(), '\n'), 1) << stderr_;
  EXPECT_EQ(stdout_, "");
}

TEST_F(ReplayErrors, TheEnvironmentNamesTheModule) {
  replay("--flows good.txt --in 1=in.pcap", "OFSWITCH_MODULE=gone.so");
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(stderr_, "OFSWITCH_MODULE=gone.so: No such file or directory\n");
}

TEST_F(ReplayErrors, ACutCaptureIsReplayedAsFarAsItGoes) {
  const std::string whole =
      captureBytes({row(1, udp(1)), row(2, udp(2)), row(3, udp(3))});
  write("cut.pcap", whole.substr(0, whole.size() - 7));
  capture("more.pcap", {row(4, udp(4))});
  replay("--flows good.txt --in 1=cut.pcap 3=more.pcap --out-dir out");
  EXPECT_EQ(status_, 1);
  EXPECT_THAT(stderr_, StartsWith("cut.pcap: after packet 2: truncated"));
  EXPECT_EQ(std::count(stderr_.begin(), stderr_.end(), '\n'), 1) << stderr_;
  EXPECT_THAT(written("out/port-2.pcap"), SizeIs(3));
  EXPECT_TRUE(account("nothingLost"));
  EXPECT_EQ(port(1)["packetsIn"], 2);
}

TEST_F(ReplayErrors, CutFramesAreReplayedAndMentioned) {
  capture("snap.pcap",
          {{1, text(udp(1).bytes()).substr(0, 40), 1000}, row(2, udp(2))});
  replay("--flows good.txt --in 1=snap.pcap --out-dir out");
  EXPECT_EQ(status_, 0);
  EXPECT_EQ(
      stderr_,
      "snap.pcap: 1 packet was captured without its end, and replayed so\n");
  EXPECT_EQ(written("out/port-2.pcap")[0].bytes.size(), 40u);
  capture("snap.pcap", {{1, text(udp(1).bytes()).substr(0, 40), 1000},
                        {2, text(udp(2).bytes()).substr(0, 40), 1000}});
  replay("--flows good.txt --in 1=snap.pcap 3=in.pcap");
  EXPECT_EQ(status_, 0);
  EXPECT_EQ(
      stderr_,
      "snap.pcap: 2 packets were captured without their ends, and replayed "
      "so\n");
}

TEST_F(ReplayErrors, AStatsFileThatCannotBeWrittenIsAnError) {
  std::filesystem::create_symlink("/dev/full", folder_ / "full");
  replay("--flows good.txt --in 1=in.pcap --stats full");
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(stderr_, "full: No space left on device\n");
}

// A limit on the size of files stands for a full disk.
TEST_F(ReplayErrors, AnOutputThatCannotBeWrittenIsAnError) {
  std::vector<CaptureRow> rows;
  for (uint64_t i = 0; i < 2000; i++) rows.push_back(row(i, udp(1)));
  capture("many.pcap", rows);
  for (const std::string workers : {"1", "2"}) {
    replay(
        "--flows good.txt --in 1=many.pcap --out-dir out --workers " + workers,
        "trap '' XFSZ && ulimit -f 64 &&");
    EXPECT_EQ(status_, 1);
    // DPDK, too, has something to say about the limit.
    EXPECT_THAT(stderr_, EndsWith("out/port-2.pcap: File too large\n"));
    EXPECT_FALSE(exists("out/port-2.pcap"));
    EXPECT_FALSE(exists("out/port-2.pcap.part"));
    EXPECT_TRUE(account("nothingLost"));
    EXPECT_EQ(port(2)["packetsOut"], 2000);
  }
}

// The last of them wait in a buffer until the file is finished.
TEST_F(ReplayErrors, TheLastPacketsOfAnOutputCannotBeWritten) {
  constexpr size_t kLimit = 64 * 512;  // as sh counts
  constexpr size_t kRecordHeader = 16;
  const size_t packets = kLimit / (kRecordHeader + udp(1).bytes().size()) + 20;
  std::vector<CaptureRow> rows;
  for (uint64_t i = 0; i < packets; i++) rows.push_back(row(i, udp(1)));
  capture("many.pcap", rows);
  replay("--flows good.txt --in 1=many.pcap --out-dir out",
         "trap '' XFSZ && ulimit -f 64 &&");
  EXPECT_EQ(status_, 1);
  EXPECT_THAT(stderr_, EndsWith("out/port-2.pcap: File too large\n"));
  EXPECT_FALSE(exists("out/port-2.pcap"));
  EXPECT_FALSE(exists("out/port-2.pcap.part"));
}

TEST_F(ReplayErrors, AnOutputThatCannotHaveItsNameIsAnError) {
  write("packets",
        "cat in.pcap\n"
        "until [ -e out/port-2.pcap.part ]; do\n"
        "  tail -c +25 in.pcap || exit\n"
        "done\n"
        "mkdir out/port-2.pcap\n");
  replay("--flows good.txt --in 1=/dev/stdin --out-dir out", "sh packets |");
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(stderr_, "out/port-2.pcap: Is a directory\n");
  EXPECT_TRUE(account("nothingLost"));
  EXPECT_THAT(written("out/port-2.pcap.part"),
              SizeIs(port(2)["packetsOut"].get<size_t>()));
}

TEST_F(ReplayErrors, OptionsOutOfRangeAreRefused) {
  replay("--flows good.txt --in 1=in.pcap --workers 17");
  EXPECT_NE(status_, 0);
  EXPECT_EQ(stderr_, "ofswitch: --workers: Value 17 not in range 1 to 16\n");
  replay("--flows good.txt --in 1=in.pcap --ports 2,8192");
  EXPECT_NE(status_, 0);
  EXPECT_EQ(stderr_, "ofswitch: --ports: Value 8192 not in range 1 to 8191\n");
  replay("--flows good.txt --in 1=in.pcap --workers 0");
  EXPECT_EQ(stderr_, "ofswitch: --workers: Value 0 not in range 1 to 16\n");
  replay("--flows good.txt --in 1=in.pcap --memory 127");
  EXPECT_EQ(stderr_,
            "ofswitch: --memory: Value 127 not in range 128 to 1048576\n");
  replay("--flows good.txt --in 1=in.pcap --build-memory 15");
  EXPECT_EQ(stderr_,
            "ofswitch: --build-memory: Value 15 not in range 16 to 1048576\n");
  EXPECT_EQ(status_, 2);
  replayWell("--flows good.txt --in 1=in.pcap --memory 300 --build-memory 16");
  replay("--flows good.txt");
  EXPECT_NE(status_, 0);
  EXPECT_EQ(stderr_, "ofswitch: --in is required\n");
}

TEST_F(ReplayErrors, ABuildBeyondItsMemoryIsRefused) {
  const ProgramsMayLeak records;
  write("flows.txt", explosiveFlows());
  capture("in.pcap", {row(1, udp(1))});
  replay("--flows flows.txt --in 1=in.pcap --build-memory 16");
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(
      stderr_,
      "ofswitch: flows.txt: table 0 IPv4: its classifier needs more than "
      "16 MB to build (--build-memory): fields that some flows leave open "
      "and others fix multiply, see docs/flow-sets.md\n");
}

TEST_F(ReplayErrors, TheTableThatDoesNotBuildMayBeOfIpv6) {
  const ProgramsMayLeak records;
  write("flows.txt", explosiveIpv6Flows() + "actions=drop\n");
  replay("--flows flows.txt --in 1=in.pcap --build-memory 16");
  EXPECT_EQ(status_, 1);
  EXPECT_THAT(
      stderr_,
      StartsWith("ofswitch: flows.txt: table 0 IPv6: its classifier needs more "
                 "than 16 MB to build (--build-memory): "));
}

}  // namespace
}  // namespace openflow_test
