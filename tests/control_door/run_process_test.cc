// SPDX-License-Identifier: BSD-3-Clause
//
// The control door of `ofswitch run`, seen from another process.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "switch.grpc.pb.h"
#include "tests/control_door/certificates.h"
#include "tests/control_door/raw_call.h"
#include "tests/support/time_limit.h"
#include "tests/support/unix_client.h"
#include "tests/switch/running_switch.h"

namespace ofswitch {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using openflow_test::ScratchDir;
using testing::HasSubstr;
using testing::MatchesRegex;
using Clock = std::chrono::steady_clock;

class ControlOfAProcess : public testing::Test {
 protected:
  ControlOfAProcess() {
    openflow_test::writeFile(
        dir_ / "flows.txt",
        "in_port=1,actions=output:2\nin_port=2,actions=output:1\n");
    openflow_test::writeFile(dir_ / "switch.yaml",
                             "ports:\n"
                             "  - {number: 1, device: net_null0}\n"
                             "  - {number: 2, device: net_null1}\n"
                             "memory: {mb: 256}\n"
                             "flows: flows.txt\n"
                             "control: {socket: run/control.sock}\n"
                             "metrics: false\n");
  }

  std::unique_ptr<RunningSwitch> start(const std::string& log = "log") {
    return std::make_unique<RunningSwitch>(dir_ / "switch.yaml", dir_ / log);
  }

  std::string socket() const { return dir_ / "run" / "control.sock"; }

  std::shared_ptr<grpc::Channel> connect() const {
    grpc::ChannelArguments arguments;
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    arguments.SetInt(GRPC_ARG_HTTP2_BDP_PROBE, 0);
    return grpc::CreateCustomChannel(
        "unix:" + socket(), grpc::InsecureChannelCredentials(), arguments);
  }

  bool isServed() const {
    return rawCall(connect(), {"/ofswitch.pb.Switch/GetTables", false}, "",
                   openflow_test::timeLimit(10s))
        .status.ok();
  }

  ScratchDir dir_;
};

constexpr char kRunning[] = "running: 2 ports, 1 worker, 2 flows\n";

TEST_F(ControlOfAProcess, OpensWithItAndClosesWithIt) {
  const auto process = start();
  ASSERT_TRUE(process->waitFor(kRunning)) << process->log();
  struct stat found {};
  ASSERT_EQ(stat(socket().c_str(), &found), 0);
  EXPECT_EQ(found.st_mode & 0777, 0600);
  EXPECT_THAT(process->log(), HasSubstr("control: " + socket() + "\n"));
  EXPECT_TRUE(isServed());
  EXPECT_EQ(process->end(SIGTERM), 0);
  EXPECT_FALSE(std::filesystem::exists(socket()));
}

// The port is one that the system has chosen.
TEST_F(ControlOfAProcess, TellsItsAddress) {
  const auto lineWith = [this](const std::string& door) {
    openflow_test::writeFile(
        dir_ / "switch.yaml",
        "ports: [{number: 1, device: net_null0}]\nmemory: {mb: 256}\n"
        "control: {socket: run/control.sock, address: \"127.0.0.1:0\"" +
            door + "}\nmetrics: false\n");
    const auto process = start();
    EXPECT_TRUE(process->waitFor("running: ")) << process->log();
    EXPECT_EQ(process->end(SIGTERM), 0);
    const std::string log = process->log();
    const size_t at = log.find("control: 127.0.0.1:");
    return log.substr(at, log.find('\n', at) - at);
  };
  EXPECT_THAT(lineWith(""),
              MatchesRegex("control: 127\\.0\\.0\\.1:[1-9][0-9]*"));
  const std::string server = certificates().path("server");
  EXPECT_THAT(
      lineWith(fmt::format(", tls: {{certificate: {0}.pem, key: {0}.key, "
                           "client_ca: {1}}}",
                           server, certificates().path("ca.pem"))),
      MatchesRegex("control: 127\\.0\\.0\\.1:[1-9][0-9]* with TLS"));
}

TEST_F(ControlOfAProcess, EndsInTimeWhoeverReadsOrDoesNot) {
  const auto process = start();
  ASSERT_TRUE(process->waitFor(kRunning)) << process->log();
  const auto client = pb::Switch::NewStub(connect());
  pb::FlowChange change;
  change.set_operation(pb::FLOW_OPERATION_ADD);
  std::string text;
  for (int i = 1; i <= 5000; i++) {
    text += fmt::format("table=1,tcp,tp_dst={},actions=drop\n", i);
  }
  change.set_text(text);
  {
    grpc::ClientContext context;
    const auto reader = client->ChangeFlows(&context, change);
    pb::FlowChangeEvent event;
    ASSERT_TRUE(reader->Read(&event));
    ASSERT_TRUE(event.reply().applied());
    ASSERT_TRUE(reader->Finish().ok());
  }
  grpc::ClientContext listing;
  const auto unread = client->DumpFlows(&listing, {});
  pb::FlowEntry flow;
  ASSERT_TRUE(unread->Read(&flow));
  grpc::ClientContext following;
  pb::LogRequest request;
  request.set_follow(true);
  request.set_max_level(5);
  const auto log = client->ReadLog(&following, request);
  pb::LogEntry entry;
  ASSERT_TRUE(log->Read(&entry));

  const auto begin = Clock::now();
  EXPECT_EQ(process->end(SIGTERM), 0);
  EXPECT_LT(Clock::now() - begin, openflow_test::timeLimit(2s));
  EXPECT_THAT(process->log(), HasSubstr("stopped: "));
  while (unread->Read(&flow)) {
  }
  EXPECT_FALSE(unread->Finish().ok());
  while (log->Read(&entry)) {
  }
  EXPECT_FALSE(log->Finish().ok());
}

// The other half is left for ports and files.
TEST_F(ControlOfAProcess, LetsConnectionsTakeHalfOfFewDescriptors) {
  constexpr size_t kFiles = 300;
  RunningSwitch process(dir_ / "switch.yaml", dir_ / "log", nullptr, kFiles);
  ASSERT_TRUE(process.waitFor(kRunning)) << process.log();
  // Who says nothing is not kept for long.
  const auto greeting = "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n"s +
                        std::string("\0\0\0\4\0\0\0\0\0", 9);
  std::vector<openflow_test::UnixClient> clients;
  while (clients.size() < kFiles / 2) {
    clients.emplace_back(socket());
    ASSERT_TRUE(clients.back().say(greeting));
    ASSERT_TRUE(clients.back().hears(20'000)) << clients.size();
    ASSERT_FALSE(clients.back().isClosed(0)) << clients.size();
  }
  const openflow_test::UnixClient refused(socket());
  EXPECT_TRUE(refused.isClosed(20'000));
  EXPECT_EQ(process.end(SIGTERM), 0);
}

// Many builds, so that one is under way until the time of a stop is over.
pb::FlowChange longChange() {
  pb::FlowChange change;
  change.set_operation(pb::FLOW_OPERATION_ADD);
  change.set_progress(true);
  std::string text;
  for (int table = 1; table < 32; table++) {
    for (int i = 0; i < 3000; i++) {
      text += fmt::format(
          "table={},tcp,nw_dst=10.{}.{}.0/24,tp_dst={},"
          "actions=dec_ttl,output:2\n",
          table, i / 256, i % 256, i % 1000 + 1);
    }
  }
  change.set_text(text);
  return change;
}

TEST_F(ControlOfAProcess, LeavesTheSocketsPathToOthersOnceItStops) {
  const auto process = start();
  ASSERT_TRUE(process->waitFor(kRunning)) << process->log();
  const auto client = pb::Switch::NewStub(connect());
  grpc::ClientContext context;
  const auto changing = client->ChangeFlows(&context, longChange());
  pb::FlowChangeEvent event;
  ASSERT_TRUE(changing->Read(&event));
  ASSERT_TRUE(event.has_progress());

  process->send(SIGTERM);
  const auto deadline = Clock::now() + 20s;
  while (std::filesystem::exists(socket()) && Clock::now() < deadline) {
    std::this_thread::sleep_for(1ms);
  }
  openflow_test::writeFile(socket(), "another's");
  EXPECT_EQ(process->end(0), 0);
  EXPECT_THAT(process->log(),
              HasSubstr("ofswitch: stopped while flows were being changed\n"));
  EXPECT_EQ(openflow_test::readFile(socket()), "another's");
}

TEST_F(ControlOfAProcess, TwoDoNotShareASocketButOneInheritsIt) {
  auto first = start();
  ASSERT_TRUE(first->waitFor(kRunning)) << first->log();
  const auto second = start("second.log");
  EXPECT_EQ(second->end(0), 1);
  EXPECT_EQ(second->log(),
            "ofswitch: control socket " + socket() +
                ": a switch is running there; stop it or choose another "
                "path\n");
  EXPECT_TRUE(isServed());

  first->end(SIGKILL);
  EXPECT_TRUE(std::filesystem::exists(socket()));
  const auto third = start("third.log");
  ASSERT_TRUE(third->waitFor(kRunning)) << third->log();
  EXPECT_TRUE(isServed());
  EXPECT_EQ(third->end(SIGTERM), 0);
}

// A message with one field of text.
std::string textField(int number, const std::string& text) {
  return std::string{static_cast<char>(number << 3 | 2),
                     static_cast<char>(text.size())} +
         text;
}

TEST_F(ControlOfAProcess, TellsItsHealth) {
  const auto process = start();
  ASSERT_TRUE(process->waitFor(kRunning)) << process->log();
  for (const char* name : {"", "ofswitch.pb.Switch", "bess.pb.Host"}) {
    const RawAnswer answer =
        rawCall(connect(), {"/grpc.health.v1.Health/Check", false},
                textField(1, name), openflow_test::timeLimit(10s));
    ASSERT_TRUE(answer.status.ok()) << answer.status.error_message();
    EXPECT_EQ(answer.last, "\x08\x01");  // status: SERVING
  }
}

TEST_F(ControlOfAProcess, DescribesItsServices) {
  const auto process = start();
  ASSERT_TRUE(process->waitFor(kRunning)) << process->log();
  constexpr RawMethod kReflection = {
      "/grpc.reflection.v1alpha.ServerReflection/ServerReflectionInfo", true};
  const RawAnswer services = rawCall(connect(), kReflection, textField(7, "*"),
                                     openflow_test::timeLimit(10s));
  ASSERT_TRUE(services.status.ok()) << services.status.error_message();
  EXPECT_THAT(services.last, HasSubstr("ofswitch.pb.Switch"));
  EXPECT_THAT(services.last, HasSubstr("bess.pb.Host"));
  EXPECT_THAT(services.last, HasSubstr("grpc.health.v1.Health"));
  const RawAnswer file =
      rawCall(connect(), kReflection, textField(4, "ofswitch.pb.Switch"),
              openflow_test::timeLimit(10s));
  ASSERT_TRUE(file.status.ok()) << file.status.error_message();
  EXPECT_THAT(file.last, HasSubstr("ChangeFlows"));
}

}  // namespace
}  // namespace ofswitch
