// SPDX-License-Identifier: BSD-3-Clause
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "switch/live/config.h"

namespace ofswitch {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(Config, DefaultsForEveryKey) {
  const SwitchConfig config = parseConfig("", "/etc/ofswitch/switch.yaml");
  EXPECT_THAT(config.ports, IsEmpty());
  EXPECT_THAT(config.workers, ElementsAre(-1));
  EXPECT_EQ(config.memoryMb, 512);
  EXPECT_EQ(config.buildMb, 0);
  EXPECT_FALSE(config.hugepages);
  EXPECT_EQ(config.packetBuffers, 16383);
  EXPECT_THAT(config.flowFiles, IsEmpty());
  EXPECT_EQ(config.module.path, "");
  EXPECT_EQ(config.controlSocket, "/run/ofswitch/control.sock");
  EXPECT_EQ(config.controlAddress, "");
  EXPECT_EQ(config.metricsAddress, "127.0.0.1:9469");
  EXPECT_EQ(config.controllerCapture.path, "");
  EXPECT_THAT(config.logLevels, IsEmpty());
  EXPECT_EQ(config.counters, 1u << 20);
}

TEST(Config, TakesEveryKey) {
  const SwitchConfig config = parseConfig(R"(
ports:
  - {number: 7, device: "net_tap0,iface=tap0", name: uplink, queues: 2, mtu: 9000}
  - number: 2
    device: 0000:03:00.0
workers: [2, 3]
memory: {mb: 2048, hugepages: true, buffers: 65535, build_mb: 1000}
flows: [flows.txt, /srv/more.txt]
control:
  socket: door.sock
  address: 0.0.0.0:9470
  tls: {certificate: c.pem, key: /k.pem, client_ca: ca.pem}
metrics: false
controller: {capture: controller.pcap}
log: {OpenFlow: 2, Controller: 0}
module: lib.so
counters: 4096
)",
                                          "/etc/ofswitch/switch.yaml");
  ASSERT_EQ(config.ports.size(), 2);
  EXPECT_EQ(config.ports[0].number, 2);
  EXPECT_EQ(config.ports[0].name, "port2");
  EXPECT_EQ(config.ports[0].device, "0000:03:00.0");
  EXPECT_EQ(config.ports[0].queues, 1);
  EXPECT_EQ(config.ports[0].mtu, 0);
  EXPECT_EQ(config.ports[1].number, 7);
  EXPECT_EQ(config.ports[1].name, "uplink");
  EXPECT_EQ(config.ports[1].device, "net_tap0,iface=tap0");
  EXPECT_EQ(config.ports[1].queues, 2);
  EXPECT_EQ(config.ports[1].mtu, 9000);
  EXPECT_THAT(config.workers, ElementsAre(2, 3));
  EXPECT_EQ(config.memoryMb, 2048);
  EXPECT_TRUE(config.hugepages);
  EXPECT_FALSE(parseConfig("memory: {hugepages: false}\n", "x").hugepages);
  EXPECT_EQ(parseConfig("controller: {capture: ''}\n", "/etc/x.yaml")
                .controllerCapture.path,
            "");
  EXPECT_EQ(config.packetBuffers, 65535);
  EXPECT_EQ(config.buildMb, 1000);
  ASSERT_EQ(config.flowFiles.size(), 2);
  EXPECT_EQ(config.flowFiles[0].path, "/etc/ofswitch/flows.txt");
  EXPECT_EQ(config.flowFiles[1].path, "/srv/more.txt");
  EXPECT_EQ(config.controlSocket, "/etc/ofswitch/door.sock");
  EXPECT_EQ(config.controlAddress, "0.0.0.0:9470");
  EXPECT_EQ(config.tlsCertificate.path, "/etc/ofswitch/c.pem");
  EXPECT_EQ(config.tlsKey.path, "/k.pem");
  EXPECT_EQ(config.tlsClientCa.path, "/etc/ofswitch/ca.pem");
  EXPECT_EQ(config.metricsAddress, "");
  EXPECT_EQ(config.controllerCapture.path, "/etc/ofswitch/controller.pcap");
  EXPECT_EQ(config.logLevels.at("OpenFlow"), 7u);
  EXPECT_EQ(config.logLevels.at("Controller"), 1u);
  EXPECT_EQ(config.module.path, "/etc/ofswitch/lib.so");
  EXPECT_EQ(config.counters, 4096);
}

// So that whoever finds out later that it does not hold can name the line.
TEST(Config, RemembersWhereThingsStand) {
  const SwitchConfig config = parseConfig(R"(ports:
  - number: 1
    device: d
workers: 2
module: m.so
controller:
  capture: c.pcap
control:
  tls:
    certificate: c.pem
    key: k.pem
    client_ca: a.pem
)",
                                          "dir/s.yaml");
  EXPECT_EQ(config.file, "dir/s.yaml");
  EXPECT_EQ(config.ports.at(0).place, "dir/s.yaml:3");
  EXPECT_EQ(config.workersPlace, "dir/s.yaml:4");
  EXPECT_EQ(config.module.place, "dir/s.yaml:5");
  EXPECT_EQ(config.controllerCapture.place, "dir/s.yaml:7");
  EXPECT_EQ(config.tlsCertificate.place, "dir/s.yaml:10");
  EXPECT_EQ(config.tlsKey.place, "dir/s.yaml:11");
  EXPECT_EQ(config.tlsClientCa.place, "dir/s.yaml:12");
  EXPECT_EQ(config.module.placed("broken"), "dir/s.yaml:5: broken");
  EXPECT_EQ(ConfiguredFile().placed("broken"), "broken");
}

TEST(Config, WorkersByNumber) {
  EXPECT_THAT(parseConfig("workers: 3", "s.yaml").workers,
              ElementsAre(-1, -1, -1));
}

struct ErrorCase {
  const char* name;
  const char* yaml;
  const char* error;
};

const ErrorCase kErrorCases[] = {
    {"UnknownKey", "memory: {mb: 512}\nprots: []\n",
     "s.yaml:2: unknown key \"prots\", did you mean \"ports\"?"},
    {"UnknownKeyInSection", "memory:\n  hugepage: true\n",
     "s.yaml:2: unknown key \"memory.hugepage\", did you mean "
     "\"hugepages\"?"},
    {"UnknownKeyInPort", "ports:\n  - number: 1\n    device: d\n    speed: 3\n",
     "s.yaml:4: unknown key \"ports.speed\""},
    {"KeyTwice", "workers: 1\nworkers: 2\n",
     "s.yaml:2: workers is there twice"},
    {"MetricsForAll", "workers: 1\nmetrics: 0.0.0.0:9469\n",
     "s.yaml:2: metrics: \"0.0.0.0:9469\" must be a loopback address, such as "
     "127.0.0.1:9469, because metrics are not encrypted; a proxy with TLS can "
     "pass them on"},
    {"MetricsNowhere", "metrics: {address: here}\n",
     "s.yaml:1: metrics: \"here\" must be an IPv4 address and a port, such as "
     "127.0.0.1:9469, or false"},
    {"MetricsPort", "metrics: 127.0.0.1:94690\n",
     "s.yaml:1: metrics: \"127.0.0.1:94690\" must be an IPv4 address and a "
     "port, such as 127.0.0.1:9469, or false"},
    {"MetricsKey", "metrics:\n  adress: 127.0.0.1:1\n",
     "s.yaml:2: unknown key \"metrics.adress\", did you mean \"address\"?"},
    {"NoNumber", "ports:\n  - device: net_null0\n",
     "s.yaml:2: a port needs a number"},
    {"NoDevice", "ports:\n  - number: 1\n",
     "s.yaml:2: a port needs a device, such as 0000:03:00.0 or "
     "net_af_packet0,iface=eth1"},
    {"NoPort", "ports:\n  - {number: 1, device: d}\n  - ~\n",
     "s.yaml:3: a port needs a number"},
    {"EmptyDevice", "ports:\n  - {number: 1, device: \"\"}\n",
     "s.yaml:2: a port needs a device, such as 0000:03:00.0 or "
     "net_af_packet0,iface=eth1"},
    {"PortZero", "ports:\n  - {number: 0, device: d}\n",
     "s.yaml:2: ports.number: \"0\" is not a number from 1 to 8191"},
    {"PortTwice", "ports:\n- {number: 1, device: a}\n- {number: 1, device: b}",
     "s.yaml:3: port 1 is there twice"},
    {"NameTwice",
     "ports:\n- {number: 1, device: a, name: x}\n- {number: 2, device: b, "
     "name: x}",
     "s.yaml:3: two ports have the name \"x\""},
    {"NameNoWord", "ports:\n- {number: 1, device: a, name: \"a b\"}",
     "s.yaml:2: \"a b\": a name is made of letters, digits, \"_\", \".\" and "
     "\"-\""},
    {"NotANumber", "memory: {mb: lots}",
     "s.yaml:1: memory.mb: \"lots\" is not a number from 64 to 1048576"},
    {"TooLittleForABuild", "memory: {build_mb: 15}",
     "s.yaml:1: memory.build_mb: \"15\" is not a number from 16 to 1048576"},
    {"NotABool", "memory: {hugepages: maybe}",
     "s.yaml:1: memory.hugepages: \"maybe\" is neither true nor false"},
    {"ListForValue", "module: [a]", "s.yaml:1: module: must be one value"},
    {"ValueForList", "ports: 3", "s.yaml:1: ports: must be a list"},
    {"ValueForSection", "\nmemory: 3",
     "s.yaml:2: memory: must hold keys and values"},
    {"ListForFile", "- a", "s.yaml:1: the file must hold keys and values"},
    {"NoWorkers", "workers: []", "s.yaml:1: workers: must be 1 to 16 cores"},
    {"ManyWorkers", "workers: 17",
     "s.yaml:1: workers: \"17\" is not a number from 1 to 16"},
    {"CoreTwice", "workers: [2, 2]",
     "s.yaml:1: workers: core 2 is there twice"},
    {"HalfTls", "control:\n  tls:\n    key: k.pem",
     "s.yaml:3: control.tls: needs certificate, key and client_ca"},
    {"LogFacility", "log: {Openflow: 2}",
     "s.yaml:1: unknown key \"log.Openflow\", did you mean \"OpenFlow\"?"},
    {"LogLevel", "log: {OpenFlow: 32}",
     "s.yaml:1: log.OpenFlow: \"32\" is not a number from 0 to 31"},
    {"Tab", "memory:\n\tmb: 512\n",
     "s.yaml:2: a tab in front of the line; YAML indents by blanks"},
    {"TabBehindAWord", "memory: mb:\t512\n", "s.yaml:1: illegal map value"},
    {"BrokenYaml", "ports: [\n", "s.yaml:2: end of sequence flow not found"},
};

class ConfigErrors : public testing::TestWithParam<ErrorCase> {};

TEST_P(ConfigErrors, NameFileLineAndReason) {
  try {
    parseConfig(GetParam().yaml, "s.yaml");
    FAIL() << "was taken";
  } catch (const ConfigError& error) {
    EXPECT_STREQ(error.what(), GetParam().error);
  }
}

INSTANTIATE_TEST_SUITE_P(Rows, ConfigErrors, testing::ValuesIn(kErrorCases),
                         [](const auto& row) { return row.param.name; });

// Reasons quote the file, and a file may hold what a terminal would obey.
TEST(Config, ReasonsAreOneLineThatIsSafeToShow) {
  try {
    parseConfig("ports:\n  - device: \"\\\n\x1b\"\nq\"\": [", "s.yaml");
    FAIL() << "taken";
  } catch (const ConfigError& error) {
    for (const char c : std::string(error.what())) {
      EXPECT_GE(static_cast<unsigned char>(c), 0x20) << error.what();
    }
  }
  try {
    parseConfig("\"\x1b[2J\": 1", "s.yaml");
    FAIL() << "taken";
  } catch (const ConfigError& error) {
    EXPECT_STREQ(error.what(), "s.yaml:1: unknown key \"\\x1b[2J\"");
  }
}

TEST(Config, MetricsHaveAnAddressOrMore) {
  EXPECT_EQ(parseConfig("metrics: localhost:9000", "c").metricsAddress,
            "localhost:9000");
  EXPECT_EQ(parseConfig("metrics: {address: false}", "c").metricsAddress, "");
  const SwitchConfig config =
      parseConfig("metrics: {address: 127.1.2.3:9000, flows: 7}", "c");
  EXPECT_EQ(config.metricsAddress, "127.1.2.3:9000");
  EXPECT_EQ(config.metricsFlows, 7);
  EXPECT_EQ(parseConfig("metrics: {flows: 7}", "c").metricsAddress,
            "127.0.0.1:9469");
}

std::string whyNotLoaded(const std::string& path) {
  try {
    loadConfig(path);
  } catch (const ConfigError& error) {
    return error.what();
  }
  return "was taken";
}

TEST(Config, FilesThatCannotBeRead) {
  EXPECT_EQ(whyNotLoaded("/nowhere/switch.yaml"),
            "/nowhere/switch.yaml: cannot open: No such file or directory");
  // Reads like an empty file to who does not look closely.
  EXPECT_EQ(whyNotLoaded("/usr"), "/usr: cannot be read: Is a directory");
  EXPECT_EQ(whyNotLoaded("/dev/zero"),
            "/dev/zero:1: more than 16 MB of text; no more is read");
}

// The example says what every key's default is.
TEST(Config, ExampleNamesEveryKeyWithItsDefault) {
  const std::string path = SOURCE_DIR "/examples/switch.yaml";
  EXPECT_EQ(loadConfig(path).ports.size(), 2);
  std::ifstream in(path);
  std::ostringstream text;
  text << in.rdbuf();
  for (const char* line :
       {"# workers: 1\n", "#   mb: 512 ", "#   hugepages: false ",
        "#   buffers: 16383 ", "#   socket: /run/ofswitch/control.sock ",
        "# metrics: 127.0.0.1:9469\n", "# counters: 1048576\n"}) {
    EXPECT_NE(text.str().find(line), std::string::npos) << line;
  }
}

}  // namespace
}  // namespace ofswitch
