// SPDX-License-Identifier: BSD-3-Clause
#include "tests/doctor/fake_machine.h"

#include <fmt/format.h>

namespace ofswitch {

namespace fs = std::filesystem;

FakeMachine::FakeMachine() {
  write("/proc/cpuinfo",
        "processor\t: 0\nflags\t\t: fpu sse4_2 avx2 avx512f avx512vl avx512bw "
        "avx512cd\n");
  write("/proc/meminfo",
        "MemTotal:       16384000 kB\nMemAvailable:   8192000 kB\n"
        "HugePages_Total:     600\nHugePages_Free:      512\n"
        "Hugepagesize:       2048 kB\n");
  write("/proc/self/status",
        "Name:\tofswitch\nCapEff:\t000001ffffffffff\n"
        "Cpus_allowed_list:\t0-3\n");
  write("/proc/self/limits",
        "Max locked memory         8388608              8388608              "
        "bytes\n");
  link("/proc/self/exe", "/usr/local/bin/ofswitch");
  write("/proc/net/packet", "");
  write("/dev/net/tun", "");
  write("/sys/devices/system/cpu/online", "0-3\n");
  write("/sys/devices/system/cpu/isolated", "2-3\n");
  write("/sys/devices/system/clocksource/clocksource0/current_clocksource",
        "tsc\n");
  write("/sys/devices/system/clocksource/clocksource0/available_clocksource",
        "tsc hpet acpi_pm \n");
  for (const char* driver : {"net_af_packet", "net_tap", "net_null"}) {
    write(fmt::format("/usr/lib/x86_64-linux-gnu/dpdk/pmds-23.0/librte_{}.so."
                      "23.0",
                      driver),
          "");
  }
  write("/usr/sbin/ethtool", "");
  fs::create_directories(at("/run"));
  addInterface("eth0", 2, 2);
  addInterface("veth1", 5, 6);
  addInterface("veth2", 6, 5);
  addCard("0000:03:00.0", "vfio-pci");
  link("/sys/bus/pci/devices/0000:03:00.0/iommu_group",
       "../../../kernel/iommu_groups/12");
  write("/dev/vfio/12", "");
}

fs::path FakeMachine::at(const std::string& path) const {
  return root_.path() / fs::path(path).relative_path();
}

void FakeMachine::write(const std::string& path, const std::string& text) {
  fs::create_directories(at(path).parent_path());
  openflow_test::writeFile(at(path), text);
}

void FakeMachine::link(const std::string& path, const std::string& target) {
  remove(path);
  fs::create_directories(at(path).parent_path());
  fs::create_symlink(target, at(path));
}

void FakeMachine::remove(const std::string& path) { fs::remove_all(at(path)); }

void FakeMachine::addInterface(const std::string& name, int index, int peer) {
  const std::string folder = "/sys/class/net/" + name + "/";
  write(folder + "flags", "0x1003\n");
  write(folder + "ifindex", fmt::format("{}\n", index));
  write(folder + "iflink", fmt::format("{}\n", peer));
}

void FakeMachine::addCard(const std::string& address,
                          const std::string& driver) {
  const std::string folder = "/sys/bus/pci/devices/" + address + "/";
  write(folder + "class", "0x020000\n");
  write(folder + "vendor", "0x8086\n");
  write(folder + "device", "0x1572\n");
  if (!driver.empty()) {
    link(folder + "driver", "../../../bus/pci/drivers/" + driver);
  }
}

Machine FakeMachine::machine() const {
  return Machine(root_.path(), [this](const std::string& interface) {
    const auto found = offloads.find(interface);
    return found == offloads.end() ? std::vector<std::string>() : found->second;
  });
}

std::vector<std::string> lines(const Findings& findings) {
  std::vector<std::string> lines;
  for (const Finding& one : findings.all()) {
    lines.push_back(fmt::format("{}: {}{}{}", word(one.status), one.sentence,
                                one.remedy.empty() ? "" : " -> ", one.remedy));
  }
  return lines;
}

}  // namespace ofswitch
