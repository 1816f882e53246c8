// SPDX-License-Identifier: BSD-3-Clause
#include "switch/client/switch_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "tests/captures/capture_files.h"
#include "tests/client/fake_switch.h"
#include "tests/support/listener.h"
#include "tests/support/time_limit.h"

namespace ofswitch {
namespace {

using openflow_test::Listener;
using testing::HasSubstr;
using testing::StartsWith;

std::string whyNot(const DoorOptions& door) {
  try {
    SwitchClient client(door);
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "connected";
}

TEST(SwitchClient, AsksBySocket) {
  FakeSwitch fake;
  fake.ports.add_ports()->set_port(7);
  fake.handOver();
  SwitchClient client({.socket = fake.socket()});
  const auto reply =
      client.call(&SwitchClient::Stub::GetPorts, pb::PortsRequest());
  ASSERT_EQ(reply.ports_size(), 1);
  EXPECT_EQ(reply.ports(0).port(), 7u);
}

TEST(SwitchClient, FindsTheSocketInTheEnvironment) {
  FakeSwitch fake;
  setenv("OFSWITCH_SOCKET", fake.socket().c_str(), 1);
  EXPECT_EQ(whyNot({}), "connected");
  EXPECT_THAT(whyNot({.socket = "/nowhere/c.sock"}),
              StartsWith("control socket /nowhere/c.sock: "));
  setenv("OFSWITCH_SOCKET", "", 1);
  EXPECT_EQ(DoorOptions().socketPath(), "/run/ofswitch/control.sock");
  unsetenv("OFSWITCH_SOCKET");
  EXPECT_EQ(DoorOptions().socketPath(), "/run/ofswitch/control.sock");
}

TEST(SwitchClient, AsksByAddress) {
  FakeSwitch fake("127.0.0.1:0");
  EXPECT_EQ(whyNot({.address = "127.0.0.1:" + std::to_string(fake.port())}),
            "connected");
}

// A proxy for the web is none for a switch.
TEST(SwitchClient, AsksPastTheProxyOfTheEnvironment) {
  FakeSwitch fake("127.0.0.1:0");
  const char* const names[] = {"http_proxy", "https_proxy", "grpc_proxy"};
  for (const char* name : names) setenv(name, "http://127.0.0.1:1", 1);
  EXPECT_EQ(whyNot({.address = "127.0.0.1:" + std::to_string(fake.port()),
                    .wait = 5}),
            "connected");
  for (const char* name : names) unsetenv(name);
}

TEST(SwitchClient, AsksByAnIpv6Address) {
  FakeSwitch fake("[::1]:0");
  EXPECT_EQ(whyNot({.address = "[::1]:" + std::to_string(fake.port())}),
            "connected");
}

// gRPC would read some of these characters as its own.
TEST(SwitchClient, AsksBySocketsOfAnyName) {
  FakeSwitch fake;
  const openflow_test::ScratchDir dir;
  for (const char* name :
       {"a b", "50%20", "x?y#z", "\x01", "gr\u00fcn", "a:b@c", "-._~9"}) {
    std::filesystem::create_symlink(fake.socket(), dir / name);
    EXPECT_EQ(whyNot({.socket = dir / name}), "connected") << name;
  }
}

TEST(SwitchClient, TellsWhatIsNoSocket) {
  const openflow_test::ScratchDir dir;
  const std::string file = dir / "switch.yaml";
  openflow_test::writeFile(file, "");
  for (const std::string& path : {file, dir.path().string()}) {
    EXPECT_EQ(whyNot({.socket = path}),
              "control socket " + path +
                  ": is no socket; say --socket PATH, which is control.socket "
                  "in the switch's configuration");
  }
}

TEST(SwitchClient, TellsWhereNothingListens) {
  EXPECT_EQ(whyNot({.socket = "/nowhere/c.sock"}),
            "control socket /nowhere/c.sock: does not exist: no switch runs "
            "there; start one with \"ofswitch run -c switch.yaml\", or say "
            "--socket PATH");
  EXPECT_EQ(whyNot({.address = "127.0.0.1:1"}),
            "control address 127.0.0.1:1: nothing listens there; a switch "
            "does when its configuration says control: {address: "
            "127.0.0.1:1}");
}

TEST(SwitchClient, TellsOfASocketThatWasLeftBehind) {
  const openflow_test::ScratchDir dir;
  const std::string path = dir / "c.sock";
  { const auto gone = Listener::onPath(path); }
  EXPECT_EQ(whyNot({.socket = path}),
            "control socket " + path +
                ": nothing listens: the switch that made it is gone; start "
                "one with \"ofswitch run -c switch.yaml\"");
}

TEST(SwitchClient, TellsWhatIsNoSocketAndNoAddress) {
  const openflow_test::ScratchDir dir;
  openflow_test::writeFile(dir / "file", "");
  const std::string longPath = "/tmp/" + std::string(120, 'x');
  EXPECT_THAT(whyNot({.socket = dir / "file"}), HasSubstr("is no socket"));
  EXPECT_EQ(whyNot({.socket = longPath}),
            "control socket " + longPath +
                ": the path has 125 characters, at most 107 are possible");
  for (const std::string address : {"9470", ":9470", "127.0.0.1:", ":"}) {
    EXPECT_EQ(whyNot({.address = address}),
              "control address " + address +
                  ": must be HOST:PORT, e.g. 127.0.0.1:9470 or [::1]:9470");
  }
  EXPECT_EQ(whyNot({.address = "127.0.0.1:none"}),
            "control address 127.0.0.1:none: must be HOST:PORT, e.g. "
            "127.0.0.1:9470 or [::1]:9470");
}

TEST(SwitchClient, TellsOfAPeerThatIsNoSwitch) {
  const auto listener = Listener::onLoopback();
  std::thread peer([fd = listener.fd()] {
    for (int i = 0; i < 2; i++) {
      const int one = accept(fd, nullptr, nullptr);
      send(one, "220 mail\r\n", 10, MSG_NOSIGNAL);
      close(one);
    }
  });
  const std::string where = listener.address();
  EXPECT_EQ(whyNot({.address = where}),
            "control address " + where +
                ": something listens there, but it does not answer as a "
                "switch does; it may want --tls-ca, --tls-cert and --tls-key");
  peer.join();
}

// There is no more to try at a socket, which has no TLS.
TEST(SwitchClient, TellsOfASocketThatIsNoSwitchs) {
  const openflow_test::ScratchDir dir;
  const std::string path = dir / "mail.sock";
  const auto listener = Listener::onPath(path);
  std::thread peer([fd = listener.fd()] {
    for (int one; (one = accept(fd, nullptr, nullptr)) >= 0; close(one)) {
      send(one, "220 mail\r\n", 10, MSG_NOSIGNAL);
    }
  });
  EXPECT_EQ(whyNot({.socket = path}),
            "control socket " + path +
                ": something listens there, but it does not answer as a "
                "switch does");
  shutdown(listener.fd(), SHUT_RDWR);
  peer.join();
}

// It accepts, since the kernel does so for it, and says nothing.
TEST(SwitchClient, TellsOfAPeerThatIsSilent) {
  const openflow_test::ScratchDir dir;
  const std::string path = dir / "control.sock";
  const auto peer = Listener::onPath(path);

  const auto start = std::chrono::steady_clock::now();
  testing::internal::CaptureStderr();
  EXPECT_EQ(whyNot({.socket = path, .wait = 0.5}),
            "control socket " + path +
                ": something listens there, but it did not answer within 0.5 "
                "s; if it is a switch that loads many flows, say --wait "
                "SECONDS");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_LT(std::chrono::steady_clock::now() - start,
            openflow_test::timeLimit(std::chrono::seconds(3)));

  testing::internal::CaptureStderr();
  EXPECT_THAT(whyNot({.socket = path, .wait = 2.5}),
              HasSubstr("did not answer within 2.5 s"));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "ofswitch: control socket " + path +
                ": waiting up to 2.5 s for an answer; the switch may still be "
                "loading its flows\n");
}

TEST(SwitchClient, TellsOfFilesForTlsThatCannotBeRead) {
  FakeSwitch fake("127.0.0.1:0");
  EXPECT_EQ(
      whyNot({.address = "127.0.0.1:" + std::to_string(fake.port()),
              .tlsCa = "/nowhere/ca.pem",
              .tlsCertificate = "/nowhere/cert.pem",
              .tlsKey = "/nowhere/key.pem"}),
      "--tls-cert: /nowhere/cert.pem: cannot open: No such file or directory");
}

TEST(SwitchClient, RepeatsWhatTheSwitchRefuses) {
  FakeSwitch fake;
  SwitchClient client({.socket = fake.socket()});
  const auto answer = [&](grpc::StatusCode code) -> std::string {
    fake.handOver();
    fake.status = {code, "the reason"};
    fake.handOver();
    try {
      client.call(&SwitchClient::Stub::GetPorts, pb::PortsRequest());
    } catch (const ClientError& error) {
      return error.what();
    }
    return "answered";
  };
  const std::string where = "control socket " + fake.socket() + ": ";
  EXPECT_EQ(answer(grpc::StatusCode::OK), "answered");
  EXPECT_EQ(answer(grpc::StatusCode::INVALID_ARGUMENT), "the reason");
  EXPECT_EQ(answer(grpc::StatusCode::UNAVAILABLE),
            where + "the switch has stopped, or hung up: the reason");
  EXPECT_EQ(answer(grpc::StatusCode::UNIMPLEMENTED),
            where + "this switch cannot do that: the reason");
  EXPECT_EQ(answer(grpc::StatusCode::INTERNAL), where + "the reason");
}

}  // namespace
}  // namespace ofswitch
