// SPDX-License-Identifier: BSD-3-Clause
#include <fmt/format.h>
#include <sys/un.h>

#include <algorithm>
#include <filesystem>

#include "eal.h"
#include "ports/port.h"
#include "switch/doctor/checks.h"

namespace ofswitch {
namespace {

constexpr char kMeminfo[] = "/proc/meminfo";

struct Hugepages {
  uint64_t total = 0;
  uint64_t free = 0;
  uint64_t kb = 0;    // of one
  uint64_t need = 0;  // for this configuration

  // Those that have to be made of other memory.
  uint64_t missingMb() const {
    return need > free ? (need - free) * kb / 1024 : 0;
  }
  // So many must there be for the need to be met.
  std::string sysctl() const {
    return fmt::format("sysctl -w vm.nr_hugepages={}", total - free + need);
  }
};

Hugepages hugepagesOf(const Machine& machine, const SwitchConfig& config) {
  Hugepages pages;
  pages.total = machine.number(kMeminfo, "HugePages_Total");
  pages.free = machine.number(kMeminfo, "HugePages_Free");
  pages.kb = machine.number(kMeminfo, "Hugepagesize");
  if (pages.kb > 0) {
    pages.need = (config.memoryMb * 1024 + pages.kb - 1) / pages.kb;
  }
  return pages;
}

uint64_t availableMb(const Machine& machine) {
  return machine.number(kMeminfo, "MemAvailable") / 1024;
}

void checkHugepages(const Machine& machine, const Hugepages& pages,
                    const SwitchConfig& config, Findings* out) {
  if (pages.free >= pages.need) {
    out->ok(fmt::format("{} MB need {} hugepages of {} kB, {} are free",
                        config.memoryMb, pages.need, pages.kb, pages.free));
    return;
  }
  const std::string sentence =
      fmt::format("{} MB need {} hugepages of {} kB, only {} are free",
                  config.memoryMb, pages.need, pages.kb, pages.free);
  // Asked for more, the kernel would make hugepages of all it has.
  const uint64_t available = availableMb(machine);
  if (pages.missingMb() < available) {
    out->problem(sentence, pages.sysctl());
  } else {
    out->problem(
        fmt::format("{}, and {} MB of other memory", sentence, available),
        inFile(config,
               fmt::format("memory: {{mb: {}}}",
                           (pages.free * pages.kb / 1024 + available) / 2)));
  }
}

// They are only for memory that nobody else knows.
bool mayHaveThem(const SwitchConfig& config) {
  return std::ranges::none_of(config.ports, [](const PortConfig& port) {
    return bess::Port::IsPci(port.device) ||
           bess::Port::SharesMemory(port.device);
  });
}

void checkOrdinary(const Machine& machine, const Hugepages& pages,
                   const SwitchConfig& config, Findings* out) {
  const uint64_t available = availableMb(machine);
  if (available < config.memoryMb) {
    out->problem(
        fmt::format("{} MB are wanted, only {} MB are available",
                    config.memoryMb, available),
        inFile(config, fmt::format("memory: {{mb: {}}}", available / 2)));
  } else {
    out->ok(fmt::format("{} MB are wanted, {} MB are available",
                        config.memoryMb, available));
  }
  if (pages.kb == 0) return;
  if (bess::AllowsHugePages(machine.read(bess::kHugePageModes)) &&
      mayHaveThem(config)) {
    out->ok("the kernel makes huge pages of them");
    return;
  }
  if (pages.missingMb() >= available) return;
  const std::string use = inFile(config, "memory: {hugepages: true}");
  out->gain(
      "without hugepages, lookups and copies miss the processor's TLB "
      "more often than they need to",
      pages.free >= pages.need ? use : pages.sysctl() + "; then " + use);
}

}  // namespace

void checkMemory(const Machine& machine, const SwitchConfig& config,
                 Findings* out) {
  out->subject("memory");
  const Hugepages pages = hugepagesOf(machine, config);
  if (!config.hugepages) {
    checkOrdinary(machine, pages, config, out);
  } else if (pages.kb > 0) {
    checkHugepages(machine, pages, config, out);
  } else {
    out->problem("the kernel has no hugepages",
                 inFile(config, "memory: {hugepages: false}"));
  }
}

void checkControl(const Machine& machine, const SwitchConfig& config,
                  Findings* out) {
  out->subject("control socket");
  const std::string& path = config.controlSocket;
  const std::string otherPath =
      inFile(config, "control: {socket: /tmp/ofswitch.sock}");
  constexpr size_t kMost = sizeof(sockaddr_un::sun_path) - 1;
  if (path.size() > kMost) {
    out->problem(fmt::format("{} has {} characters, at most {} are possible",
                             path, path.size(), kMost),
                 otherPath);
    return;
  }
  std::error_code error;
  const std::filesystem::path folder =
      std::filesystem::absolute(path, error).parent_path();
  if (error) {
    out->problem(
        fmt::format("{} begins at the current folder, which is gone", path),
        "cd to another one, or " + otherPath);
    return;
  }
  // The switch makes what is missing of the path.
  std::filesystem::path there = folder;
  while (!machine.exists(there) && there != there.parent_path()) {
    there = there.parent_path();
  }
  if (machine.writable(there)) {
    out->ok(path);
  } else {
    out->problem(
        fmt::format("this user cannot make files in {}", there.string()),
        fmt::format("sudo install -d -o $(id -un) {}", folder.string()));
  }
}

}  // namespace ofswitch
