// SPDX-License-Identifier: BSD-3-Clause
#include "switch/doctor/machine.h"

#include <gtest/gtest.h>

#include "tests/doctor/fake_machine.h"

namespace ofswitch {
namespace {

TEST(Machine, UnderstandsListsOfProcessors) {
  EXPECT_EQ(parseCpuList("0-3,6,8-9"), (std::set<int>{0, 1, 2, 3, 6, 8, 9}));
  EXPECT_EQ(parseCpuList("5"), (std::set<int>{5}));
  EXPECT_EQ(parseCpuList(""), (std::set<int>{}));
  EXPECT_EQ(parseCpuList("none,3,,5-6"), (std::set<int>{3, 5, 6}));
  EXPECT_EQ(cpuList({0, 1, 2, 3, 6, 8, 9}), "0-3,6,8-9");
  EXPECT_EQ(cpuList({5}), "5");
  EXPECT_EQ(cpuList({}), "");
}

TEST(Machine, ReadsFieldsByTheirWholeName) {
  FakeMachine fake;
  fake.write("/f", "Mem: 1\nMemory: 2\nA b c    3 4\nflags\t\t: x y\nnone:\n");
  const Machine machine = fake.machine();
  EXPECT_EQ(machine.number("/f", "Mem"), 1);
  EXPECT_EQ(machine.number("/f", "Memory"), 2);
  EXPECT_EQ(machine.field("/f", "A b c"), "3 4");
  EXPECT_EQ(machine.field("/f", "flags"), "x y");
  EXPECT_EQ(machine.field("/f", "none"), "");
  EXPECT_EQ(machine.field("/f", "Memo"), "");
  EXPECT_EQ(machine.field("/nowhere", "Mem"), "");
}

TEST(Machine, KnowsThisOne) {
  const Machine machine;
  EXPECT_GT(machine.number("/proc/meminfo", "MemAvailable"), 0);
  EXPECT_GE(machine.allowedCpus().size(), 1);
  EXPECT_TRUE(machine.exists("/proc/self/exe"));
  EXPECT_EQ(machine.link("/proc/self/exe").filename(), "doctor_test");
  EXPECT_EQ(machine.offloads("no-such-card"), std::vector<std::string>());
}

}  // namespace
}  // namespace ofswitch
