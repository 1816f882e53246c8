// SPDX-License-Identifier: BSD-3-Clause
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>

#include "tests/captures/capture_files.h"

namespace {

using openflow_test::ScratchDir;
using testing::HasSubstr;
using testing::Not;

struct Outcome {
  int status = -1;
  std::string output;  // and errors
};

Outcome shell(const std::string& script) {
  Outcome outcome;
  FILE* pipe = popen(("{ " + script + "\n} 2>&1").c_str(), "r");
  char buffer[4096];
  size_t length = 0;
  while ((length = fread(buffer, 1, sizeof(buffer), pipe)) > 0) {
    outcome.output.append(buffer, length);
  }
  outcome.status = WEXITSTATUS(pclose(pipe));
  return outcome;
}

// A shell script with network interfaces and mounts of its own.
Outcome inNamespaces(const std::string& command) {
  const char* user = geteuid() == 0 ? "" : "--map-root-user ";
  return shell("unshare " + std::string(user) + "--net --mount " + command);
}

// Why there can be no namespaces here; empty where there can.
std::string whyNoNamespaces() {
  const Outcome outcome = inNamespaces("true");
  return outcome.status == 0 ? "" : outcome.output;
}

class DoctorCommand : public testing::Test {
 protected:
  std::string write(const std::string& name, const std::string& text) {
    openflow_test::writeFile(dir_ / name, text);
    return dir_ / name;
  }

  ScratchDir dir_;
};

TEST_F(DoctorCommand, TellsAboutThisMachine) {
  const std::string config =
      write("s.yaml",
            "memory: {mb: 64}\ncontrol: {socket: control.sock}\n"
            "ports: [{number: 1, device: net_null0}]\n");
  const Outcome text = shell(OFSWITCH " doctor -c " + config);
  EXPECT_EQ(text.status, 0) << text.output;
  EXPECT_THAT(text.output, HasSubstr("\nok       port 1: net_null0\n"));
  EXPECT_THAT(text.output, HasSubstr("\nready to run, "));
  const Outcome json = shell(OFSWITCH " doctor --json -c " + config);
  EXPECT_EQ(json.status, 0);
  EXPECT_EQ(nlohmann::json::parse(json.output)["ready"], true);
}

TEST_F(DoctorCommand, FailsWhenSomethingPreventsRunning) {
  const std::string config =
      write("s.yaml", "ports: [{number: 1, device: net_nonsense0}]\n");
  const Outcome text = shell(OFSWITCH " doctor -c " + config);
  EXPECT_EQ(text.status, 1);
  EXPECT_THAT(text.output,
              HasSubstr("problem  port 1: DPDK's driver net_nonsense is not "
                        "installed\n"));
  EXPECT_THAT(text.output, HasSubstr("not ready to run: 1 problem, "));
}

TEST_F(DoctorCommand, RefusesABadConfiguration) {
  const std::string config = write("s.yaml", "prots: []\n");
  const Outcome outcome = shell(OFSWITCH " doctor -c " + config);
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.output, "ofswitch: " + config +
                                ":1: unknown key \"prots\", did you mean "
                                "\"ports\"?\n");
}

TEST_F(DoctorCommand, LooksAfterTheInstalledConfiguration) {
  if (const std::string why = whyNoNamespaces(); !why.empty()) {
    GTEST_SKIP() << why;
  }
  const std::string script =
      write("script",
            "set -e\n"
            "mount -t tmpfs tmpfs /etc\n" OFSWITCH
            " doctor | grep -c 'port 5' || true\n"
            "mkdir /etc/ofswitch\n"
            "echo 'ports: [{number: 5, device: net_null0}]' > "
            "/etc/ofswitch/switch.yaml\n" OFSWITCH " doctor | grep 'port 5'\n");
  const Outcome outcome = inNamespaces("sh " + script);
  EXPECT_EQ(outcome.output, "0\nok       port 5: net_null0\n");
}

// What the doctor prescribes helps: a new cable of the kernel's is down and
// full of offloads, and after the remedies there is nothing left to mend.
TEST_F(DoctorCommand, RemediesForAnInterfaceWork) {
  if (const std::string why = whyNoNamespaces(); !why.empty()) {
    GTEST_SKIP() << why;
  }
  const std::string config =
      write("s.yaml",
            "memory: {mb: 64}\ncontrol: {socket: control.sock}\n"
            "ports: [{number: 1, device: \"net_af_packet0,iface=left\"}]\n");
  const std::string doctor = OFSWITCH " doctor -c " + config;
  const std::string script = write(
      "script",
      "set -e\n"
      "mount -t sysfs sysfs /sys\n"
      "ip link add left type veth peer name right\n" +
          doctor +
          " || echo status $?\n"
          "echo mend\n" +
          doctor + " | grep -E '^ +(ip link|ethtool)' | sh -e > /dev/null\n" +
          doctor + "\n");
  const Outcome outcome = inNamespaces("sh " + script);
  EXPECT_EQ(outcome.status, 0) << outcome.output;
  const size_t mend = outcome.output.find("status 1\nmend\n");
  ASSERT_NE(mend, std::string::npos) << outcome.output;
  const std::string before = outcome.output.substr(0, mend);
  const std::string after = outcome.output.substr(mend);
  EXPECT_THAT(before, HasSubstr("problem  port 1: left is down\n"
                                "           ip link set left up\n"));
  EXPECT_THAT(before, HasSubstr("ethtool -K left tx off tso off gso off"));
  EXPECT_THAT(before, HasSubstr("ethtool -K right tx off tso off gso off\n"));
  EXPECT_THAT(after, HasSubstr("ok       port 1: net_af_packet0,iface=left\n"));
  EXPECT_THAT(after, Not(HasSubstr("problem")));
}

}  // namespace
