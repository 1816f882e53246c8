// SPDX-License-Identifier: BSD-3-Clause
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/doctor/fake_machine.h"

namespace ofswitch {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ProcessorChecks : public testing::Test {
 protected:
  std::vector<std::string> processor() const {
    Findings out;
    checkProcessor(fake_.machine(), &out);
    return lines(out);
  }
  std::vector<std::string> cores(const std::vector<int>& workers) const {
    SwitchConfig config;
    config.file = "s.yaml";
    config.workers = workers;
    Findings out;
    checkCores(fake_.machine(), config, &out);
    return lines(out);
  }

  FakeMachine fake_;
};

TEST_F(ProcessorChecks, LacksNothing) {
  EXPECT_THAT(processor(),
              ElementsAre("ok: AVX-512: rte_acl looks up 32 packets at a time "
                          "(avx512x32)",
                          "ok: clock source tsc"));
  EXPECT_THAT(cores({2, 3}),
              ElementsAre("ok: 2 workers on isolated cores 2-3"));
  EXPECT_THAT(cores({3}), ElementsAre("ok: 1 worker on isolated core 3"));
}

TEST_F(ProcessorChecks, NarrowerVectors) {
  fake_.write("/proc/cpuinfo", "flags\t\t: sse4_2 avx2 avx512f\n");
  EXPECT_EQ(processor()[0],
            "ok: AVX2: rte_acl looks up 16 packets at a time (avx2)");
  // rte_acl needs all four.
  const std::string kAvx512[] = {"avx512f", "avx512vl", "avx512bw", "avx512cd"};
  for (const std::string& missing : kAvx512) {
    std::string flags = "flags\t\t: sse4_2 avx2";
    for (const std::string& flag : kAvx512) {
      if (flag != missing) flags += " " + flag;
    }
    fake_.write("/proc/cpuinfo", flags + "\n");
    EXPECT_EQ(processor()[0],
              "ok: AVX2: rte_acl looks up 16 packets at a time (avx2)")
        << missing;
  }
  fake_.write("/proc/cpuinfo", "flags\t\t: sse4_2 avx\n");
  EXPECT_EQ(processor()[0],
            "gain: no AVX2: rte_acl looks up 8 packets at a time (sse)");
  fake_.write("/proc/cpuinfo", "flags\t\t: sse4_1 hypervisor\n");
  EXPECT_EQ(processor()[0],
            "problem: the processor has no SSE4.2, which DPDK needs -> in the "
            "virtual machine's settings: the host's own processor model (QEMU: "
            "-cpu host)");
  fake_.write("/proc/cpuinfo", "flags\t\t: sse4_1\n");
  EXPECT_EQ(processor()[0],
            "problem: the processor has no SSE4.2, which DPDK needs");
  fake_.write("/proc/cpuinfo", "flags\t\t: sse4_2 hypervisor\n");
  EXPECT_EQ(processor()[0],
            "gain: no AVX2: rte_acl looks up 8 packets at a time (sse) -> in "
            "the virtual machine's settings: the host's own processor model "
            "(QEMU: -cpu host)");
}

TEST_F(ProcessorChecks, SlowClock) {
  const std::string folder = "/sys/devices/system/clocksource/clocksource0/";
  fake_.write(folder + "current_clocksource", "hpet\n");
  EXPECT_EQ(processor()[1],
            "gain: clock source hpet: reading the time costs a system call -> "
            "echo tsc > " +
                folder + "current_clocksource");
  fake_.write(folder + "available_clocksource", "hpet acpi_pm \n");
  EXPECT_EQ(processor()[1],
            "gain: clock source hpet: reading the time costs a system call");
  for (const std::string fast : {"kvm-clock", "hyperv_clocksource_tsc_page"}) {
    fake_.write(folder + "current_clocksource", fast + "\n");
    EXPECT_EQ(processor()[1], "ok: clock source " + fast);
  }
  fake_.remove(folder + "current_clocksource");
  EXPECT_EQ(processor().size(), 1u);
}

TEST_F(ProcessorChecks, SpeedThatFollowsTheLoad) {
  for (const char* cpu : {"0", "1", "2", "3"}) {
    fake_.write(std::string("/sys/devices/system/cpu/cpu") + cpu +
                    "/cpufreq/scaling_governor",
                cpu == std::string("2") ? "powersave\n" : "performance\n");
  }
  EXPECT_EQ(processor()[2],
            "gain: the processor's speed follows the load (governor "
            "powersave), and workers load it in bursts -> echo performance | "
            "tee /sys/devices/system/cpu/cpu*/cpufreq/scaling_governor");
}

TEST_F(ProcessorChecks, CoresThatAreNotThere) {
  EXPECT_THAT(cores({3, 9}),
              ElementsAre("problem: there is no core 9, only 0-3 -> in s.yaml: "
                          "workers: [2, 3]",
                          "ok: 2 workers on isolated core 3"));
  fake_.write("/proc/self/status", "Cpus_allowed_list:\t0,3\n");
  EXPECT_THAT(cores({2}),
              ElementsAre("problem: core 2 is not for this process, only 0,3 "
                          "-> in s.yaml: workers: [3]"));
}

TEST_F(ProcessorChecks, SharedCores) {
  EXPECT_THAT(
      cores({0, 1, 2}),
      ElementsAre(
          "gain: cores 0-1: the system runs other programs there, too, and "
          "packets wait for them -> sed -i 's/^GRUB_CMDLINE_LINUX=\"/&"
          "isolcpus=0-1 nohz_full=0-1 rcu_nocbs=0-1 /' /etc/default/grub && "
          "update-grub && reboot"));
  EXPECT_THAT(
      cores({1}),
      ElementsAre(
          "gain: core 1: the system runs other programs there, too, and "
          "packets wait for them -> sed -i 's/^GRUB_CMDLINE_LINUX=\"/&"
          "isolcpus=1 nohz_full=1 rcu_nocbs=1 /' /etc/default/grub && "
          "update-grub && reboot"));
  EXPECT_THAT(cores({-1}),
              ElementsAre("gain: 1 worker without a core of its own: the "
                          "system moves it about -> in s.yaml: workers: [3]"));
  EXPECT_THAT(
      cores({-1, -1}),
      ElementsAre("gain: 2 workers without a core of their own: the system "
                  "moves them about -> in s.yaml: workers: [2, 3]"));
  EXPECT_THAT(cores({-1, -1, -1, -1}),
              ElementsAre("gain: 4 workers without a core of their own: the "
                          "system moves them about -> in s.yaml: workers: "
                          "[0, 1, 2, 3]"));
  EXPECT_THAT(cores({-1, -1, -1, -1, -1}),
              ElementsAre("gain: 5 workers take turns on 4 cores -> in s.yaml: "
                          "workers: [0, 1, 2, 3]"));
  fake_.write("/proc/self/status", "Cpus_allowed_list:\t3\n");
  EXPECT_THAT(cores({-1, -1}),
              ElementsAre("gain: 2 workers take turns on 1 core -> in s.yaml: "
                          "workers: [3]"));
}

}  // namespace
}  // namespace ofswitch
