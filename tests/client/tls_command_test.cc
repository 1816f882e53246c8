// SPDX-License-Identifier: BSD-3-Clause
//
// Commands that ask a switch elsewhere, with certificates.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include "switch/control/control_server.h"
#include "tests/client/client_command.h"
#include "tests/control_door/certificates.h"
#include "tests/switch/live_bench.h"

namespace ofswitch {
namespace {

class TlsCommand : public ClientCommand {
 protected:
  TlsCommand() {
    SwitchConfig config;
    config.controlSocket = dir_ / "control.sock";
    config.controlAddress = "0.0.0.0:0";
    config.tlsCertificate.path = certificates().path("server.pem");
    config.tlsKey.path = certificates().path("server.key");
    config.tlsClientCa.path = certificates().path("ca.pem");
    door_ =
        std::make_unique<ControlServer>(ControlSockets(config), &bench_.live());
  }

  void askAs(const std::string& client, const std::string& authority) {
    askWith(client + ".pem", client + ".key", authority + ".pem");
  }

  void askWith(const std::string& certificate, const std::string& key,
               const std::string& authority) {
    run(fmt::format("ports --address {} --tls-ca {} --tls-cert {} --tls-key {}",
                    address(), certificates().path(authority),
                    certificates().path(certificate),
                    certificates().path(key)));
  }

  std::string address() const {
    return fmt::format("127.0.0.1:{}", door_->tcpPort());
  }
  std::string noSwitch() const {
    return fmt::format(
        "ofswitch: control address {}: something listens there, but it does "
        "not answer as a switch does; ",
        address());
  }

  LiveBench bench_{{}};
  std::unique_ptr<ControlServer> door_;
};

TEST_F(TlsCommand, IsAnsweredWhenEachTrustsTheOther) {
  askAs("client", "ca");
  EXPECT_EQ(status_, 0) << err_;
  EXPECT_THAT(out_, testing::HasSubstr("net_ring1"));
}

TEST_F(TlsCommand, SaysWhatMayBeWrong) {
  askAs("client", "other");
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(err_, noSwitch() +
                      "it may not use TLS, or not trust the certificate, or "
                      "not be named in its own\n");
  run("ports --address " + address());
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(err_,
            noSwitch() + "it may want --tls-ca, --tls-cert and --tls-key\n");
}

TEST_F(TlsCommand, SaysWhichFileIsOfNoUse) {
  const auto path = [](const char* name) { return certificates().path(name); };
  openflow_test::writeFile(path("cut.pem"),
                           certificates().text("client.pem").substr(0, 500));
  ASSERT_EQ(std::system(("openssl rsa -aes128 -passout pass:word -in " +
                         path("client.key") + " -out " + path("locked.key") +
                         " 2>/dev/null")
                            .c_str()),
            0);
  const struct {
    const char *certificate, *key, *authority;
    std::string reason;
  } kRows[] = {
      {"none.pem", "client.key", "ca.pem",
       "--tls-cert: " + path("none.pem") +
           ": cannot open: No such file or directory"},
      {"client.csr", "client.key", "ca.pem",
       "--tls-cert: " + path("client.csr") +
           ": is no certificate in PEM format"},
      {"cut.pem", "client.key", "ca.pem",
       "--tls-cert: " + path("cut.pem") + ": is no certificate in PEM format"},
      {"client.pem", "client.csr", "ca.pem",
       "--tls-key: " + path("client.csr") +
           ": is no private key in PEM format"},
      {"client.pem", "locked.key", "ca.pem",
       "--tls-key: " + path("locked.key") +
           ": needs a password, which nobody is asked for"},
      {"client.pem", "server.key", "ca.pem",
       "--tls-key: " + path("server.key") +
           ": is not the private key of the certificate " + path("client.pem")},
      {"client.pem", "client.key", "client.key",
       "--tls-ca: " + path("client.key") + ": is no certificate in PEM format"},
  };
  for (const auto& row : kRows) {
    askWith(row.certificate, row.key, row.authority);
    EXPECT_EQ(status_, 1);
    EXPECT_EQ(err_, "ofswitch: " + row.reason + "\n");
  }
}

TEST_F(TlsCommand, TakesItsOptionsTogether) {
  for (const char* some :
       {"--tls-ca a", "--tls-ca a --tls-cert b", "--tls-cert b --tls-key c",
        "--tls-ca a --tls-key c", "--tls-key c"}) {
    run(fmt::format("ports --address {} {}", address(), some));
    EXPECT_EQ(status_, 2) << some;
    EXPECT_THAT(err_, testing::HasSubstr("--tls-")) << some;
  }
  run("ports --tls-ca a --tls-cert b --tls-key c");
  EXPECT_EQ(status_, 2);
  run("ports --socket s --address " + address());
  EXPECT_EQ(status_, 2);
}

}  // namespace
}  // namespace ofswitch
