// SPDX-License-Identifier: BSD-3-Clause
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "switch/doctor/doctor.h"
#include "tests/doctor/fake_machine.h"

namespace ofswitch {
namespace {

constexpr Finding::Status kOk = Finding::Status::kOk;
constexpr Finding::Status kGain = Finding::Status::kGain;
constexpr Finding::Status kProblem = Finding::Status::kProblem;

TEST(DoctorReport, ForPeople) {
  const std::vector<Finding> findings = {{kOk, "a", "fine", ""},
                                         {kGain, "b", "slow", "do this"}};
  EXPECT_TRUE(healthy(findings));
  EXPECT_EQ(findingsText(findings),
            "ok       a: fine\n"
            "gain     b: slow\n"
            "           do this\n"
            "ready to run, 1 possible gain\n");
  const std::vector<Finding> ill = {{kProblem, "a", "broken", "mend"},
                                    {kProblem, "b", "missing", ""}};
  EXPECT_FALSE(healthy(ill));
  EXPECT_EQ(findingsText(ill),
            "problem  a: broken\n"
            "           mend\n"
            "problem  b: missing\n"
            "not ready to run: 2 problems, 0 possible gains\n");
}

TEST(DoctorReport, ForPrograms) {
  const auto report = nlohmann::json::parse(
      findingsJson({{kProblem, "port 1", "say \"no\"", "mend"}}));
  EXPECT_EQ(report, nlohmann::json({{"ready", false},
                                    {"findings",
                                     {{{"status", "problem"},
                                       {"subject", "port 1"},
                                       {"sentence", "say \"no\""},
                                       {"remedy", "mend"}}}}}));
}

TEST(DoctorReport, NamesWhatEachFindingIsAbout) {
  const FakeMachine fake;
  SwitchConfig config;
  config.workers = {2, 3};
  config.hugepages = true;
  config.ports = {{1, "port1", "net_null0", 1, 0},
                  {7, "port7", "net_tap0", 1, 0}};
  EXPECT_EQ(findingsText(examine(fake.machine(), config)),
            "ok       processor: AVX-512: rte_acl looks up 32 packets at a "
            "time (avx512x32)\n"
            "ok       processor: clock source tsc\n"
            "ok       workers: 2 workers on isolated cores 2-3\n"
            "ok       memory: 512 MB need 256 hugepages of 2048 kB, 512 are "
            "free\n"
            "ok       control socket: /run/ofswitch/control.sock\n"
            "ok       port 1: net_null0\n"
            "ok       port 7: net_tap0\n"
            "ok       network cards: 0000:03:00.0 (8086:1572) is held by "
            "vfio-pci and is no port; to make it one: in switch.yaml: device: "
            "\"0000:03:00.0\"\n"
            "ready to run, 0 possible gains\n");
}

}  // namespace
}  // namespace ofswitch
