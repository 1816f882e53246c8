// SPDX-License-Identifier: BSD-3-Clause
#include <fmt/format.h>

#include <algorithm>
#include <initializer_list>
#include <iterator>
#include <sstream>

#include "switch/doctor/checks.h"

namespace ofswitch {
namespace {

constexpr char kCpu[] = "/sys/devices/system/cpu/";
constexpr char kClock[] = "/sys/devices/system/clocksource/clocksource0/";

std::set<std::string> wordsOf(const std::string& text) {
  std::istringstream words(text);
  return {std::istream_iterator<std::string>(words), {}};
}

// "in switch.yaml: workers: [2, 3]"
std::string workersLine(const SwitchConfig& config,
                        const std::vector<int>& cores) {
  std::string list;
  for (const int core : cores) {
    list += fmt::format("{}{}", list.empty() ? "" : ", ", core);
  }
  return inFile(config, fmt::format("workers: [{}]", list));
}

// As many cores as there are workers, the last ones: the first is where the
// system does most of its own work.
std::vector<int> coresFor(size_t workers, const std::set<int>& allowed) {
  std::vector<int> cores(allowed.begin(), allowed.end());
  cores.erase(cores.begin(), cores.end() - static_cast<ptrdiff_t>(std::min(
                                               workers, cores.size())));
  return cores;
}

void checkVectors(const Machine& machine, Findings* out) {
  const auto flags = wordsOf(machine.field("/proc/cpuinfo", "flags"));
  const auto has = [&](std::initializer_list<const char*> names) {
    return std::ranges::all_of(
        names, [&](const char* name) { return flags.contains(name); });
  };
  const char* virtualMachine =
      has({"hypervisor"})
          ? "in the virtual machine's settings: the host's own processor model "
            "(QEMU: -cpu host)"
          : "";
  if (!has({"sse4_2"})) {
    out->problem("the processor has no SSE4.2, which DPDK needs",
                 virtualMachine);
  } else if (has({"avx512f", "avx512vl", "avx512bw", "avx512cd"})) {
    out->ok("AVX-512: rte_acl looks up 32 packets at a time (avx512x32)");
  } else if (has({"avx2"})) {
    out->ok("AVX2: rte_acl looks up 16 packets at a time (avx2)");
  } else {
    out->gain("no AVX2: rte_acl looks up 8 packets at a time (sse)",
              virtualMachine);
  }
}

void checkClock(const Machine& machine, Findings* out) {
  const std::string clock =
      machine.read(std::string(kClock) + "current_clocksource");
  // These are read without asking the kernel.
  const std::set<std::string> fast = {"tsc", "kvm-clock",
                                      "hyperv_clocksource_tsc_page"};
  if (clock.empty() || fast.contains(clock)) {
    if (!clock.empty()) out->ok(fmt::format("clock source {}", clock));
    return;
  }
  const bool tsc =
      wordsOf(machine.read(std::string(kClock) + "available_clocksource"))
          .contains("tsc");
  out->gain(fmt::format("clock source {}: reading the time costs a system call",
                        clock),
            tsc ? fmt::format("echo tsc > {}current_clocksource", kClock) : "");
}

void checkGovernor(const Machine& machine, Findings* out) {
  for (const int cpu : machine.cpus(std::string(kCpu) + "online")) {
    const std::string governor = machine.read(
        fmt::format("{}cpu{}/cpufreq/scaling_governor", kCpu, cpu));
    if (governor.empty() || governor == "performance") continue;
    out->gain(fmt::format("the processor's speed follows the load (governor "
                          "{}), and workers load it in bursts",
                          governor),
              fmt::format("echo performance | tee "
                          "{}cpu*/cpufreq/scaling_governor",
                          kCpu));
    return;
  }
}

}  // namespace

void checkProcessor(const Machine& machine, Findings* out) {
  out->subject("processor");
  checkVectors(machine, out);
  checkClock(machine, out);
  checkGovernor(machine, out);
}

void checkCores(const Machine& machine, const SwitchConfig& config,
                Findings* out) {
  out->subject("workers");
  const std::set<int> online = machine.cpus(std::string(kCpu) + "online");
  const std::set<int> allowed = machine.allowedCpus();
  const std::set<int> isolated = machine.cpus(std::string(kCpu) + "isolated");
  std::set<int> pinned;
  std::set<int> shared;
  for (const int core : config.workers) {
    if (core < 0) continue;
    const std::string remedy =
        workersLine(config, coresFor(config.workers.size(), allowed));
    if (!online.contains(core)) {
      out->problem(
          fmt::format("there is no core {}, only {}", core, cpuList(online)),
          remedy);
    } else if (!allowed.contains(core)) {
      out->problem(fmt::format("core {} is not for this process, only {}", core,
                               cpuList(allowed)),
                   remedy);
    } else {
      pinned.insert(core);
      if (!isolated.contains(core)) shared.insert(core);
    }
  }
  const size_t workers = config.workers.size();
  const char* s = workers == 1 ? "" : "s";
  if (workers > allowed.size()) {
    out->gain(fmt::format("{} workers take turns on {} core{}", workers,
                          allowed.size(), allowed.size() == 1 ? "" : "s"),
              workersLine(config, coresFor(workers, allowed)));
  } else if (config.workers.front() < 0) {
    out->gain(fmt::format("{} worker{} without a core of {} own: the system "
                          "moves {} about",
                          workers, s, workers == 1 ? "its" : "their",
                          workers == 1 ? "it" : "them"),
              workersLine(config, coresFor(workers, allowed)));
  } else if (!shared.empty()) {
    const std::string list = cpuList(shared);
    out->gain(fmt::format("core{} {}: the system runs other programs there, "
                          "too, and packets wait for them",
                          shared.size() == 1 ? "" : "s", list),
              fmt::format("sed -i 's/^GRUB_CMDLINE_LINUX=\"/&isolcpus={0} "
                          "nohz_full={0} rcu_nocbs={0} /' /etc/default/grub "
                          "&& update-grub && reboot",
                          list));
  } else if (!pinned.empty()) {
    out->ok(fmt::format("{} worker{} on isolated core{} {}", workers, s,
                        pinned.size() == 1 ? "" : "s", cpuList(pinned)));
  }
}

}  // namespace ofswitch
