// SPDX-License-Identifier: BSD-3-Clause
//
// The command in front of a switch that runs in a process of its own.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "tests/captures/capture_files.h"
#include "tests/support/frame.h"
#include "tests/switch/running_switch.h"

namespace ofswitch {
namespace {

using openflow_test::Bytes;
using openflow_test::Frame;
using openflow_test::hex;
using openflow_test::readFile;
using openflow_test::ScratchDir;
using openflow_test::writeFile;
using testing::HasSubstr;

class TraceCommand : public testing::Test {
 protected:
  void SetUp() override {
    writeFile(dir_ / "flows.txt",
              "cookie=0x2a,in_port=1,tcp,tp_dst=80,actions=dec_ttl,output:2\n");
    writeFile(dir_ / "switch.yaml",
              "ports:\n"
              "  - {number: 1, device: net_null0}\n"
              "  - {number: 2, device: net_null1}\n"
              "memory: {mb: 256}\n"
              "flows: flows.txt\n"
              "control: {socket: control.sock}\n"
              "metrics: false\n");
    switch_.emplace(dir_ / "switch.yaml", dir_ / "log");
    ASSERT_TRUE(switch_->waitFor("running: ")) << switch_->log();
  }

  struct Result {
    int status = -1;
    std::string out;
    std::string err;
  };

  // `arguments` as a shell reads them.
  Result trace(const std::string& arguments) const {
    const std::string line =
        fmt::format("{} trace --socket {} {} >{} 2>{}", OFSWITCH,
                    (dir_ / "control.sock").string(), arguments,
                    (dir_ / "out").string(), (dir_ / "err").string());
    const int status = std::system(line.c_str());
    return {WEXITSTATUS(status), readFile(dir_ / "out"),
            readFile(dir_ / "err")};
  }

  ScratchDir dir_;
  std::optional<RunningSwitch> switch_;
};

const Frame kFrame = Frame::eth().ipv4(0x0a000001, 0x0a000002).tcp(1000, 80);

TEST_F(TraceCommand, TextBytesAndCapturesSayTheSame) {
  const Bytes frame = kFrame.bytes();
  const Result bytes = trace(hex(frame) + " --in-port 1");
  EXPECT_EQ(bytes.err, "");
  EXPECT_EQ(bytes.status, 0);
  EXPECT_EQ(
      bytes.out,
      fmt::format("packet of 54 bytes into port 1\n"
                  "table 0\n"
                  "  key     in_port=1,dl_src=02:00:00:00:00:05,"
                  "dl_dst=02:00:00:00:00:0d,dl_type=0x0800,nw_src=10.0.0.1,"
                  "nw_dst=10.0.0.2,nw_proto=6,nw_tos=0,nw_ecn=0,nw_ttl=64,"
                  "tp_src=1000,tp_dst=80,tcp_flags=+psh+ack\n"
                  "  match   table=0,priority=32768,cookie=0x2a,in_port=1,tcp,"
                  "tp_dst=80,actions=dec_ttl,output:2\n"
                  "          flow 1, cookie 0x2a, IPv4 classifier, {}:1\n"
                  "  set     nw_ttl 64 -> 63\n"
                  "  output  port 2\n"
                  "leaves by port 2: 54 bytes\n"
                  "  {}\n",
                  (dir_ / "flows.txt").string(),
                  hex(Frame(kFrame).ttl(63).bytes())));
  writeFile(dir_ / "in.pcap",
            openflow_test::captureBytes(
                {{1, "another frame at all"},
                 {2, std::string(frame.begin(), frame.end())}}));
  const Result capture =
      trace("--in-port 1 " + (dir_ / "in.pcap").string() + "#2");
  EXPECT_EQ(capture.status, 0);
  EXPECT_EQ(capture.out, bytes.out);
  const Result text = trace(
      "in_port=1,tcp,nw_src=10.0.0.1,nw_dst=10.0.0.2,tp_src=1000,tp_dst=80");
  EXPECT_EQ(text.status, 0);
  EXPECT_THAT(text.out, HasSubstr("  set     nw_ttl 64 -> 63\n"
                                  "  output  port 2\n"));
}

TEST_F(TraceCommand, NotesThatACaptureHasOnlyTheBeginning) {
  const Bytes frame = kFrame.bytes();
  const std::string file = dir_ / "cut.pcap";
  writeFile(file, openflow_test::captureBytes(
                      {{1, std::string(frame.begin(), frame.end()), 1500}}));
  const Result result = trace("--in-port 1 --json " + file + "#1");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "note: " + file +
                            ": frame 1 was captured in part, 54 of 1500 "
                            "bytes\n");
  EXPECT_EQ(nlohmann::json::parse(result.out)["frame"], hex(frame));
}

// The reason is that of the moment, and not what other calls leave behind.
TEST_F(TraceCommand, AnOutputThatNobodyTakesIsAFailure) {
  const std::string frame = hex(Frame(kFrame).payload(size_t{9000}).bytes());
  const std::string line = fmt::format(
      "{} trace --socket {} --in-port 1 {} > /dev/full 2> {}", OFSWITCH,
      (dir_ / "control.sock").string(), frame, (dir_ / "err").string());
  EXPECT_EQ(WEXITSTATUS(std::system(line.c_str())), 1);
  EXPECT_EQ(readFile(dir_ / "err"),
            "ofswitch: standard output: No space left on device\n");
}

TEST_F(TraceCommand, JsonCarriesTheSame) {
  const Result result = trace("--json in_port=1,tcp,tp_dst=81");
  EXPECT_EQ(result.status, 0);
  const auto json = nlohmann::json::parse(result.out);
  EXPECT_EQ(json["in_port"], 1);
  const auto& step = json["steps"][0];
  EXPECT_EQ(step["key"]["tp_dst"], "81");
  EXPECT_TRUE(step["flow"].is_null());
  EXPECT_EQ(step["near"][0]["flow"]["cookie"], 42);
  EXPECT_EQ(step["near"][0]["differs"][0]["field"], "tp_dst");
  EXPECT_EQ(step["near"][0]["differs"][0]["wanted"], "80");
  EXPECT_EQ(step["near"][0]["differs"][0]["found"], "81");
  EXPECT_EQ(step["drop"]["name"], "table_miss");
  const auto sent = nlohmann::json::parse(
      trace("--json --in-port 1 " + hex(kFrame.bytes())).out);
  EXPECT_EQ(sent["outputs"][0]["port"], 2);
  EXPECT_EQ(sent["outputs"][0]["frame"], hex(Frame(kFrame).ttl(63).bytes()));
  EXPECT_EQ(sent["steps"][0]["rewrites"][0]["field"], "nw_ttl");
  EXPECT_EQ(sent["steps"][0]["flow"]["id"], 1);
}

TEST_F(TraceCommand, ErrorsAreOneLineAndHaveTheirStatus) {
  const Result refused = trace("tcp");
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.out, "");
  EXPECT_EQ(refused.err,
            "ofswitch: the packet comes in by no port: name one, "
            "in_port=PORT (the switch has ports 1, 2)\n");
  const Result odd = trace("020");
  EXPECT_EQ(odd.status, 2);
  EXPECT_EQ(odd.err,
            "ofswitch: 3 hexadecimal digits are no whole number of bytes\n");
  const Result noFile = trace("/nowhere/in.pcap#1");
  EXPECT_EQ(noFile.status, 1);
  EXPECT_EQ(noFile.err,
            "ofswitch: /nowhere/in.pcap: No such file or directory\n");
  EXPECT_EQ(trace("in_port=1 --table 40").err,
            "ofswitch: table=40: tables are numbers from 0 to 31\n");
  switch_->end(SIGTERM);
  const Result gone = trace("in_port=1,tcp");
  EXPECT_EQ(gone.status, 1);
  EXPECT_THAT(gone.err, HasSubstr("does not exist: no switch runs there"));
}

}  // namespace
}  // namespace ofswitch
