// SPDX-License-Identifier: BSD-3-Clause
#include <fmt/format.h>
#include <linux/capability.h>

#include <algorithm>
#include <string_view>

#include "ports/port.h"
#include "switch/doctor/checks.h"
#include "switch/flow/suggest.h"

namespace ofswitch {
namespace {

// Those that docs/ports.md tells of. Debian has more.
constexpr std::string_view kVirtualDrivers[] = {"net_af_packet", "net_memif",
                                                "net_null",      "net_pcap",
                                                "net_ring",      "net_tap"};

constexpr char kLibraries[] = "/usr/lib/x86_64-linux-gnu/dpdk";

// The value of an argument in "net_af_packet0,iface=veth1".
std::string argument(const std::string& device, const std::string& key) {
  const size_t at = device.find("," + key + "=");
  if (at == std::string::npos) return "";
  const size_t start = at + key.size() + 2;
  return device.substr(start, device.find(',', start) - start);
}

// "net_af_packet0,..." -> "net_af_packet"
std::string driverOf(const std::string& device) {
  const std::string name = device.substr(0, device.find(','));
  return name.substr(0, name.find_last_not_of("0123456789") + 1);
}

// Debian packs each driver by itself, as "librte-net-tap23".
std::string packageOf(std::string driver, const std::string& folder) {
  std::ranges::replace(driver, '_', '-');
  const size_t dash = folder.find('-');  // "pmds-23.0"
  const size_t dot = folder.find('.');
  return "librte-" + driver + folder.substr(dash + 1, dot - dash - 1);
}

// A driver that was mistyped is in no package.
std::string meantDriver(const std::string& driver) {
  return std::ranges::count(kVirtualDrivers, driver) > 0
             ? ""
             : suggest(driver, kVirtualDrivers);
}

void checkDriver(const Machine& machine, const std::string& driver,
                 Findings* out) {
  for (const std::string& folder : machine.list(kLibraries)) {
    if (!folder.starts_with("pmds-")) continue;
    const auto files = machine.list(fmt::format("{}/{}", kLibraries, folder));
    const std::string start = "librte_" + driver + ".so";
    if (!std::ranges::any_of(files, [&](const std::string& file) {
          return file.starts_with(start);
        })) {
      const std::string meant = meantDriver(driver);
      if (!meant.empty()) {
        out->problem(fmt::format("DPDK has no driver {} here{}", driver, meant),
                     "man switch.yaml");
        return;
      }
      out->problem(fmt::format("DPDK's driver {} is not installed", driver),
                   "apt-get install -y " + packageOf(driver, folder));
    }
    return;
  }
  out->problem(
      "DPDK's drivers are not installed",
      fmt::format("apt-get install -y {}", packageOf(driver, "pmds-23.0")));
}

void needCapability(const Machine& machine, int capability, const char* name,
                    const char* why, Findings* out) {
  if (machine.hasCapability(capability)) return;
  const std::string program = machine.link("/proc/self/exe");
  out->problem(fmt::format("{} needs the capability {}, or root", why, name),
               fmt::format("sudo setcap cap_net_admin,cap_net_raw=ep {}",
                           program.empty() ? "/usr/bin/ofswitch" : program));
}

void checkPacketSocket(const Machine& machine, const std::string& device,
                       Findings* out) {
  if (!machine.exists("/proc/net/packet")) {
    out->problem("the kernel has no packet sockets", "modprobe af_packet");
  }
  needCapability(machine, CAP_NET_RAW, "CAP_NET_RAW", "a packet socket", out);
  const std::string interface = argument(device, "iface");
  if (interface.empty()) {
    out->problem(
        device + " names no interface, as net_af_packet0,iface=eth1 does",
        "man switch.yaml");
    return;
  }
  checkInterface(machine, interface, out);
}

void checkTap(const Machine& machine, Findings* out) {
  if (!machine.exists("/dev/net/tun")) {
    out->problem("the kernel has no tap interfaces: /dev/net/tun is missing",
                 "modprobe tun");
  }
  needCapability(machine, CAP_NET_ADMIN, "CAP_NET_ADMIN", "a tap interface",
                 out);
}

// What the port itself would refuse when the switch starts.
void checkArguments(const std::string& device, Findings* out) {
  const std::string fault = bess::Port::Fault(device);
  if (!fault.empty()) {
    out->problem(fmt::format("{}: {}", device, fault), "man switch.yaml");
  }
}

void checkLockedMemory(const Machine& machine, const SwitchConfig& config,
                       Findings* out) {
  const std::string limit =
      machine.field("/proc/self/limits", "Max locked memory");
  if (limit.empty() || limit.starts_with("unlimited") ||
      machine.hasCapability(CAP_IPC_LOCK)) {
    return;
  }
  const uint64_t mb = std::strtoull(limit.c_str(), nullptr, 10) >> 20;
  if (mb < config.memoryMb) {
    out->problem(fmt::format("the card reads and writes {} MB of locked "
                             "memory, and this process may lock {} MB",
                             config.memoryMb, mb),
                 "ulimit -l unlimited");
  }
}

}  // namespace

void checkPort(const Machine& machine, const SwitchConfig& config,
               const PortConfig& port, Findings* out) {
  out->subject(fmt::format("port {}", port.number));
  const size_t before = out->all().size();
  const std::string card = bess::Port::PciAddress(port.device);
  if (!card.empty()) {
    checkPci(machine, card, out);
    checkLockedMemory(machine, config, out);
  } else if (machine.exists("/sys/class/net/" + port.device)) {
    out->problem(
        fmt::format("{} is an interface of the kernel's, no device of DPDK's",
                    port.device),
        inFile(config, fmt::format("device: \"net_af_packet{},iface={}\"",
                                   port.number, port.device)));
  } else {
    const std::string driver = driverOf(port.device);
    checkDriver(machine, driver, out);
    if (driver == "net_af_packet") {
      checkPacketSocket(machine, port.device, out);
    } else if (driver == "net_tap") {
      checkTap(machine, out);
    } else if (out->all().size() == before) {
      checkArguments(port.device, out);
    }
  }
  if (out->all().size() == before) out->ok(port.device);
}

}  // namespace ofswitch
