// SPDX-License-Identifier: BSD-3-Clause
//
// Both sides of every limit of a configuration, and values in each form.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "switch/live/config.h"

namespace ofswitch {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Why it is refused; empty when it is taken.
std::string errorOf(const std::string& yaml) {
  try {
    parseConfig(yaml, "s.yaml");
    return "";
  } catch (const ConfigError& error) {
    return error.what();
  }
}

struct Limit {
  const char* yaml;  // with the number to fill in
  const char* key;
  uint64_t least;
  uint64_t most;
};

void PrintTo(const Limit& row, std::ostream* out) { *out << row.key; }

const Limit kLimits[] = {
    {"ports: [{{number: {}, device: d}}]", "ports.number", 1, 8191},
    {"ports: [{{number: 1, device: d, queues: {}}}]", "ports.queues", 1, 64},
    {"ports: [{{number: 1, device: d, mtu: {}}}]", "ports.mtu", 68, 9710},
    {"workers: {}", "workers", 1, 16},
    {"workers: [{}]", "workers", 0, 1023},
    {"memory: {{mb: {}}}", "memory.mb", 64, 1048576},
    {"memory: {{buffers: {}}}", "memory.buffers", 511, 16777215},
    {"memory: {{build_mb: {}}}", "memory.build_mb", 16, 1048576},
    {"metrics: {{flows: {}}}", "metrics.flows", 0, 1048576},
    {"log: {{OpenFlow: {}}}", "log.OpenFlow", 0, 31},
    {"counters: {}", "counters", 1024, 268435456},
};

class ConfigLimit : public testing::TestWithParam<Limit> {};

TEST_P(ConfigLimit, TakesWhatJustFits) {
  const Limit& row = GetParam();
  const auto with = [&](const auto& value) {
    return errorOf(fmt::format(fmt::runtime(row.yaml), value));
  };
  const auto refusal = [&](const auto& value) {
    return fmt::format("s.yaml:1: {}: \"{}\" is not a number from {} to {}",
                       row.key, value, row.least, row.most);
  };
  EXPECT_EQ(with(row.least), "");
  EXPECT_EQ(with(row.most), "");
  EXPECT_EQ(with(row.most + 1), refusal(row.most + 1));
  if (row.least > 0) {
    EXPECT_EQ(with(row.least - 1), refusal(row.least - 1));
  }
  EXPECT_EQ(with("x"), refusal("x"));
}

INSTANTIATE_TEST_SUITE_P(Rows, ConfigLimit, testing::ValuesIn(kLimits));

TEST(Config, TakesOneFlowFileOrMany) {
  const auto files = [](const char* yaml) {
    std::vector<std::string> files;
    for (const auto& [path, place] : parseConfig(yaml, "/etc/s.yaml").flowFiles)
      files.push_back(place + " " + path);
    return files;
  };
  EXPECT_THAT(files("flows: a.txt"), ElementsAre("/etc/s.yaml:1 /etc/a.txt"));
  EXPECT_THAT(files("flows: [a.txt,\n  ../b.txt]"),
              ElementsAre("/etc/s.yaml:1 /etc/a.txt", "/etc/s.yaml:2 /b.txt"));
  EXPECT_THAT(files("flows: []"), IsEmpty());
  EXPECT_THAT(files("flows:"), IsEmpty());
  EXPECT_EQ(errorOf("flows: {a: b}"),
            "s.yaml:1: flows: must be a value or a list");
  EXPECT_EQ(errorOf("flows:\n  - a\n  - [b]"),
            "s.yaml:3: flows: must be one value");
}

TEST(Config, KeysAreWords) {
  EXPECT_EQ(errorOf("[a, b]: 1"), "s.yaml:1: a key must be a word");
  EXPECT_EQ(errorOf("memory:\n  {a: b}: 1"), "s.yaml:2: a key must be a word");
}

TEST(Config, NamesAreMadeOfFewLetters) {
  const auto with = [](const std::string& name) {
    return errorOf("ports: [{number: 1, device: d, name: \"" + name + "\"}]");
  };
  EXPECT_EQ(with("Aa-Zz_0.9"), "");
  for (const char* name : {"", "a/b", "a:b", "\u00e4"}) {
    EXPECT_EQ(with(name), fmt::format("s.yaml:1: \"{}\": a name is made of "
                                      "letters, digits, \"_\", \".\" and \"-\"",
                                      name));
  }
}

TEST(Config, WorkersAreANumberOrAList) {
  EXPECT_EQ(errorOf("workers: {a: 1}"),
            "s.yaml:1: workers: must be a number, or a list of cores");
  EXPECT_EQ(errorOf("workers: [0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15]"), "");
  EXPECT_EQ(errorOf("workers: [0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16]"),
            "s.yaml:1: workers: must be 1 to 16 cores");
}

TEST(Config, TlsNeedsAllOfItsFiles) {
  const auto with = [](const std::string& tls) {
    return errorOf("control: {tls: {" + tls + "}}");
  };
  EXPECT_EQ(with("certificate: c, key: k, client_ca: a"), "");
  for (const char* tls :
       {"", "certificate: c", "key: k, client_ca: a",
        "certificate: c, client_ca: a", "certificate: c, key: k"}) {
    EXPECT_EQ(with(tls),
              "s.yaml:1: control.tls: needs certificate, key and client_ca")
        << tls;
  }
}

// A key without a value is as good as none.
TEST(Config, NothingIsNoValue) {
  const SwitchConfig config = parseConfig(
      "ports:\nworkers:\nmemory:\nlog: {OpenFlow: }\nmetrics:\nmodule:\n",
      "s.yaml");
  EXPECT_THAT(config.ports, IsEmpty());
  EXPECT_THAT(config.workers, ElementsAre(-1));
  EXPECT_THAT(config.logLevels, IsEmpty());
  EXPECT_EQ(config.metricsAddress, "127.0.0.1:9469");
  EXPECT_EQ(config.module.path, "");
}

TEST(Config, LogLevelsAreMasks) {
  const auto levels = [](const char* text) {
    return parseConfig(text, "s.yaml").logLevels.at("OpenFlow");
  };
  EXPECT_EQ(levels("log: {OpenFlow: 0}"), 1u);
  EXPECT_EQ(levels("log: {OpenFlow: 5}"), 0x3fu);
  EXPECT_EQ(levels("log: {OpenFlow: 31}"), 0xffffffffu);
}

TEST(Config, MetricsAreForThisMachine) {
  for (const char* address : {"", "9469", ":9469", "127.0.0.1:", "[::1]:9469",
                              "127.0.0.1:94x", "127.0.0:9469"}) {
    const std::string error = errorOf(fmt::format("metrics: \"{}\"", address));
    if (*address == '\0') {
      EXPECT_EQ(error, "");
      continue;
    }
    EXPECT_EQ(error,
              fmt::format("s.yaml:1: metrics: \"{}\" must be an IPv4 address "
                          "and a port, such as 127.0.0.1:9469, or false",
                          address));
  }
  EXPECT_EQ(errorOf("metrics: 127.255.255.254:1"), "");
  EXPECT_NE(errorOf("metrics: 128.0.0.1:1"), "");
}

}  // namespace
}  // namespace ofswitch
