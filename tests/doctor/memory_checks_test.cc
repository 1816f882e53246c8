// SPDX-License-Identifier: BSD-3-Clause
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/doctor/fake_machine.h"

namespace ofswitch {
namespace {

using testing::ElementsAre;

constexpr char kTlb[] =
    "gain: without hugepages, lookups and copies miss the processor's TLB more "
    "often than they need to -> ";

class MemoryChecks : public testing::Test {
 protected:
  MemoryChecks() { config_.file = "s.yaml"; }

  std::vector<std::string> memory() const {
    Findings out;
    checkMemory(fake_.machine(), config_, &out);
    return lines(out);
  }
  std::vector<std::string> control(const std::string& path) {
    config_.controlSocket = path;
    Findings out;
    checkControl(fake_.machine(), config_, &out);
    return lines(out);
  }

  FakeMachine fake_;
  SwitchConfig config_;
};

TEST_F(MemoryChecks, HugepagesAreThereAndUsed) {
  config_.hugepages = true;
  config_.memoryMb = 1023;
  EXPECT_THAT(memory(), ElementsAre("ok: 1023 MB need 512 hugepages of 2048 "
                                    "kB, 512 are free"));
}

TEST_F(MemoryChecks, TooFewHugepages) {
  config_.hugepages = true;
  config_.memoryMb = 2048;
  EXPECT_THAT(memory(),
              ElementsAre("problem: 2048 MB need 1024 hugepages of 2048 kB, "
                          "only 512 are free -> sysctl -w "
                          "vm.nr_hugepages=1112"));
}

// The kernel would make hugepages of all memory that is left.
TEST_F(MemoryChecks, MoreHugepagesThanThereIsMemory) {
  config_.hugepages = true;
  config_.memoryMb = 9024;  // 1,024 MB in hugepages, 8,000 MB besides
  EXPECT_THAT(memory(),
              ElementsAre("problem: 9024 MB need 4512 hugepages of 2048 kB, "
                          "only 512 are free, and 8000 MB of other memory -> "
                          "in s.yaml: memory: {mb: 4512}"));
  config_.memoryMb = 9022;
  EXPECT_THAT(memory(),
              ElementsAre("problem: 9022 MB need 4511 hugepages of 2048 kB, "
                          "only 512 are free -> sysctl -w "
                          "vm.nr_hugepages=4599"));
  config_.hugepages = false;
  config_.memoryMb = 20000;
  EXPECT_THAT(memory(),
              ElementsAre("problem: 20000 MB are wanted, only 8000 MB are "
                          "available -> in s.yaml: memory: {mb: 4000}"));
}

TEST_F(MemoryChecks, NoHugepagesInTheKernel) {
  config_.hugepages = true;
  fake_.write("/proc/meminfo", "MemAvailable:   8192000 kB\n");
  EXPECT_THAT(memory(), ElementsAre("problem: the kernel has no hugepages -> "
                                    "in s.yaml: memory: {hugepages: false}"));
  config_.hugepages = false;
  EXPECT_THAT(memory(),
              ElementsAre("ok: 512 MB are wanted, 8000 MB are available"));
}

TEST_F(MemoryChecks, HugepagesWouldBeAGain) {
  EXPECT_THAT(
      memory(),
      ElementsAre("ok: 512 MB are wanted, 8000 MB are available",
                  std::string(kTlb) + "in s.yaml: memory: {hugepages: true}"));
  config_.memoryMb = 2048;
  EXPECT_THAT(
      memory(),
      ElementsAre("ok: 2048 MB are wanted, 8000 MB are available",
                  std::string(kTlb) + "sysctl -w vm.nr_hugepages=1112; then "
                                      "in s.yaml: memory: {hugepages: true}"));
}

TEST_F(MemoryChecks, HugePagesThatTheKernelMakes) {
  const std::string gain =
      std::string(kTlb) + "in s.yaml: memory: {hugepages: true}";
  const std::string wanted = "ok: 512 MB are wanted, 8000 MB are available";
  const std::string modes = "/sys/kernel/mm/transparent_hugepage/enabled";
  for (const char* text :
       {"always [madvise] never\n", "[always] madvise never\n"}) {
    fake_.write(modes, text);
    EXPECT_THAT(memory(),
                ElementsAre(wanted, "ok: the kernel makes huge pages of them"));
  }
  for (const char* device :
       {"net_virtio_user0,path=/run/a.sock", "0000:03:00.0"}) {
    config_.ports = {{.name = "a", .device = "net_null0"},
                     {.name = "b", .device = device}};
    EXPECT_THAT(memory(), ElementsAre(wanted, gain)) << device;
  }
  config_.ports.pop_back();
  EXPECT_THAT(memory(),
              ElementsAre(wanted, "ok: the kernel makes huge pages of them"));
  fake_.write(modes, "always madvise [never]\n");
  EXPECT_THAT(memory(), ElementsAre(wanted, gain));
}

TEST_F(MemoryChecks, TooLittleMemory) {
  fake_.write("/proc/meminfo", "MemAvailable:   409600 kB\n");
  EXPECT_THAT(memory(),
              ElementsAre("problem: 512 MB are wanted, only 400 MB are "
                          "available -> in s.yaml: memory: {mb: 200}"));
}

TEST_F(MemoryChecks, JustEnoughMemory) {
  fake_.write("/proc/meminfo", "MemAvailable:   524288 kB\n");
  EXPECT_THAT(memory(),
              ElementsAre("ok: 512 MB are wanted, 512 MB are available"));
  config_.file = "";
  config_.memoryMb = 513;
  EXPECT_THAT(memory(),
              ElementsAre("problem: 513 MB are wanted, only 512 MB are "
                          "available -> in switch.yaml: memory: {mb: 256}"));
}

TEST_F(MemoryChecks, JustEnoughHugepages) {
  config_.memoryMb = 1024;
  EXPECT_EQ(memory().back(),
            std::string(kTlb) + "in s.yaml: memory: {hugepages: true}");
  config_.memoryMb = 1025;
  EXPECT_EQ(memory().back(), std::string(kTlb) +
                                 "sysctl -w vm.nr_hugepages=601; then in "
                                 "s.yaml: memory: {hugepages: true}");
}

// Not even the topmost folder.
TEST_F(MemoryChecks, ControlSocketWithoutAnyFolder) {
  fake_.remove("/");
  EXPECT_THAT(control("/run/x.sock"),
              ElementsAre("problem: this user cannot make files in / -> sudo "
                          "install -d -o $(id -un) /run"));
}

TEST_F(MemoryChecks, ControlSocketInAFolderThatIsGone) {
  namespace fs = std::filesystem;
  const fs::path before = fs::current_path();
  const fs::path gone = fs::path(testing::TempDir()) / "gone";
  fs::create_directory(gone);
  fs::current_path(gone);
  fs::remove(gone);
  EXPECT_THAT(control("x.sock"),
              ElementsAre("problem: x.sock begins at the current folder, which "
                          "is gone -> cd to another one, or in s.yaml: "
                          "control: {socket: /tmp/ofswitch.sock}"));
  fs::current_path(before);
}

TEST_F(MemoryChecks, ControlSocket) {
  EXPECT_THAT(control("/run/ofswitch/control.sock"),
              ElementsAre("ok: /run/ofswitch/control.sock"));
  EXPECT_THAT(control("/usr/sbin/ethtool/deep/control.sock"),
              ElementsAre("problem: this user cannot make files in "
                          "/usr/sbin/ethtool -> sudo install -d -o $(id -un) "
                          "/usr/sbin/ethtool/deep"));
  EXPECT_EQ(control("/run/" + std::string(102, 'x')),
            std::vector{"ok: /run/" + std::string(102, 'x')});
  const std::string longest = "/run/" + std::string(103, 'x');
  EXPECT_THAT(control(longest),
              ElementsAre(fmt::format("problem: {} has 108 characters, at most "
                                      "107 are possible -> in s.yaml: control: "
                                      "{{socket: /tmp/ofswitch.sock}}",
                                      longest)));
}

}  // namespace
}  // namespace ofswitch
