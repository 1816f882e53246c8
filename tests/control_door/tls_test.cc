// SPDX-License-Identifier: BSD-3-Clause
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "switch/control/control_server.h"
#include "switch/live/log_report.h"
#include "tests/control_door/certificates.h"
#include "tests/control_door/control_bench.h"
#include "tests/support/time_limit.h"

namespace ofswitch {
namespace {

using openflow_test::ScratchDir;

SwitchConfig tlsConfig() {
  SwitchConfig config;
  config.controlAddress = "0.0.0.0:0";
  config.tlsCertificate.path = certificates().path("server.pem");
  config.tlsKey.path = certificates().path("server.key");
  config.tlsClientCa.path = certificates().path("ca.pem");
  return config;
}

std::string startError(const SwitchConfig& config) {
  try {
    checkControlAddress(config);
  } catch (const StartError& error) {
    return error.what();
  }
  return "";
}

class TlsDoor : public testing::Test {
 protected:
  TlsDoor() {
    SwitchConfig config = tlsConfig();
    config.controlSocket = dir_ / "control.sock";
    door_ =
        std::make_unique<ControlServer>(ControlSockets(config), &bench_.live());
  }

  // What a client with these credentials gets.
  grpc::Status ask(const std::shared_ptr<grpc::ChannelCredentials>& credentials,
                   int* ports) const {
    grpc::ChannelArguments arguments;
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    const auto client = pb::Switch::NewStub(grpc::CreateCustomChannel(
        fmt::format("127.0.0.1:{}", door_->tcpPort()), credentials, arguments));
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() +
                         openflow_test::timeLimit(std::chrono::seconds(10)));
    pb::PortsReply reply;
    const grpc::Status status = client->GetPorts(&context, {}, &reply);
    *ports = reply.ports_size();
    return status;
  }

  static std::shared_ptr<grpc::ChannelCredentials> tls(
      const std::string& client) {
    grpc::SslCredentialsOptions options;
    options.pem_root_certs = certificates().text("ca.pem");
    if (!client.empty()) {
      options.pem_private_key = certificates().text(client + ".key");
      options.pem_cert_chain = certificates().text(client + ".pem");
    }
    return grpc::SslCredentials(options);
  }

  LiveBench bench_{{}};
  ScratchDir dir_;
  std::unique_ptr<ControlServer> door_;
};

TEST_F(TlsDoor, TakesClientsWithACertificate) {
  int ports = 0;
  const grpc::Status status = ask(tls("client"), &ports);
  EXPECT_TRUE(status.ok()) << status.error_message();
  EXPECT_EQ(ports, 4);
}

TEST_F(TlsDoor, HasAPortWhileItIsOpen) {
  EXPECT_GT(door_->tcpPort(), 0);
  door_->stop();
  EXPECT_EQ(door_->tcpPort(), 0);
}

TEST_F(TlsDoor, RefusesOthers) {
  int ports = 0;
  EXPECT_EQ(ask(tls(""), &ports).error_code(), grpc::StatusCode::UNAVAILABLE);
  EXPECT_EQ(ask(tls("stranger"), &ports).error_code(),
            grpc::StatusCode::UNAVAILABLE);
  EXPECT_EQ(ask(grpc::InsecureChannelCredentials(), &ports).error_code(),
            grpc::StatusCode::UNAVAILABLE);
  EXPECT_EQ(ports, 0);
}

TEST_F(TlsDoor, LogsWhyItRefusedWithoutTellingStandardError) {
  pb::LogRequest request;
  request.set_facility("ControlDoor");
  std::vector<pb::LogEntry> entries;
  request.set_since(readLogEntries({}, SIZE_MAX, &entries));
  entries.clear();
  testing::internal::CaptureStderr();
  int ports = 0;
  ask(tls("stranger"), &ports);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  readLogEntries(request, SIZE_MAX, &entries);
  ASSERT_FALSE(entries.empty());
  EXPECT_THAT(entries.front().text(),
              testing::AllOf(testing::StartsWith("gRPC: Handshake failed"),
                             testing::HasSubstr("certificate verify failed")));
}

TEST(TlsFiles, AreLookedAtWhenTheSwitchStarts) {
  EXPECT_EQ(startError(tlsConfig()), "");
  SwitchConfig config = tlsConfig();
  config.tlsKey.path = certificates().path("client.key");
  EXPECT_EQ(startError(config),
            "control.tls.key: " + config.tlsKey.path +
                ": is not the private key of the certificate " +
                config.tlsCertificate.path);
  config = tlsConfig();
  config.tlsCertificate.path = certificates().path("server.csr");
  EXPECT_EQ(startError(config),
            "control.tls.certificate: " + config.tlsCertificate.path +
                ": is no certificate in PEM format");
  config = tlsConfig();
  config.tlsKey = {certificates().path("server.csr"), "switch.yaml:7"};
  EXPECT_EQ(startError(config),
            "switch.yaml:7: control.tls.key: " + config.tlsKey.path +
                ": is no private key in PEM format");
  config = tlsConfig();
  config.tlsClientCa.path = certificates().path("server.key");
  EXPECT_EQ(startError(config),
            "control.tls.client_ca: " + config.tlsClientCa.path +
                ": is no certificate in PEM format");
  config = tlsConfig();
  config.tlsClientCa.path = certificates().path("none.pem");
  EXPECT_EQ(startError(config),
            "control.tls.client_ca: " + config.tlsClientCa.path +
                ": cannot open: No such file or directory");
}

// Those of its authorities may follow a certificate, whole ones.
TEST(TlsFiles, MayHoldSeveralCertificates) {
  SwitchConfig config = tlsConfig();
  config.tlsCertificate.path = certificates().path("chain.pem");
  const std::string chain =
      certificates().text("server.pem") + certificates().text("ca.pem");
  openflow_test::writeFile(config.tlsCertificate.path, chain + "That is all.");
  EXPECT_EQ(startError(config), "");
  openflow_test::writeFile(config.tlsCertificate.path,
                           chain.substr(0, chain.size() - 300));
  EXPECT_EQ(startError(config),
            "control.tls.certificate: " + config.tlsCertificate.path +
                ": is no certificate in PEM format");
}

}  // namespace
}  // namespace ofswitch
