// SPDX-License-Identifier: BSD-3-Clause
#include <fmt/format.h>

#include <algorithm>

#include "ports/port.h"
#include "switch/doctor/checks.h"

namespace ofswitch {
namespace {

constexpr char kDevices[] = "/sys/bus/pci/devices/";

std::string driverOf(const Machine& machine, const std::string& address) {
  return machine.link(kDevices + address + "/driver").filename();
}

// "0x8086" -> "8086"
std::string hex(const Machine& machine, const std::string& address,
                const char* file) {
  const std::string text = machine.read(kDevices + address + "/" + file);
  return text.starts_with("0x") ? text.substr(2) : text;
}

bool isNetworkCard(const Machine& machine, const std::string& address) {
  return hex(machine, address, "class").starts_with("02");
}

// Whether DPDK can take the card from this driver. Some cards stay with that of
// the kernel's.
bool isForDpdk(const std::string& driver) {
  return driver == "vfio-pci" || driver == "igb_uio" ||
         driver == "uio_pci_generic" || driver.starts_with("mlx");
}

std::string bind(const std::string& address) {
  return "dpdk-devbind.py --bind=vfio-pci " + address;
}

// "eth0", or nothing.
std::string interfaceOf(const Machine& machine, const std::string& address) {
  const std::string device = kDevices + address;
  for (const std::string& name : machine.list(device)) {
    // A virtio card has its interface below a device of its own.
    const std::string folder =
        name.starts_with("virtio") ? device + "/" + name : device;
    const auto interfaces = machine.list(folder + "/net");
    if (!interfaces.empty()) return interfaces.front();
  }
  return "";
}

void checkVfio(const Machine& machine, const std::string& address,
               Findings* out) {
  const std::string group =
      machine.link(kDevices + address + "/iommu_group").filename();
  constexpr char kUnsafe[] =
      "/sys/module/vfio/parameters/enable_unsafe_noiommu_mode";
  if (group.empty() && machine.read(kUnsafe) != "Y") {
    out->problem(
        "the machine has no IOMMU switched on, without which the card may "
        "not reach memory",
        fmt::format("sed -i 's/^GRUB_CMDLINE_LINUX=\"/&intel_iommu=on "
                    "iommu=pt /' /etc/default/grub && update-grub && reboot; "
                    "where there is none, and at your own risk: echo 1 > {}",
                    kUnsafe));
  } else if (!group.empty() && !machine.usable("/dev/vfio/" + group)) {
    out->problem(
        fmt::format("/dev/vfio/{} may not be used by this user", group),
        fmt::format("sudo chown $(id -un) /dev/vfio/{}", group));
  }
}

}  // namespace

void checkPci(const Machine& machine, const std::string& address,
              Findings* out) {
  if (!machine.exists(kDevices + address)) {
    std::string cards;
    for (const std::string& one : machine.list(kDevices)) {
      if (isNetworkCard(machine, one)) {
        cards += (cards.empty() ? ", only " : ", ") + one;
      }
    }
    out->problem(fmt::format("there is no PCI device {}{}", address, cards),
                 "dpdk-devbind.py --status-dev net");
    return;
  }
  const std::string driver = driverOf(machine, address);
  if (driver == "vfio-pci") return checkVfio(machine, address, out);
  if (isForDpdk(driver)) return;
  if (!machine.exists("/sys/module/vfio_pci")) {
    out->problem("the kernel's module vfio-pci is not loaded",
                 "modprobe vfio-pci");
  }
  const std::string interface = interfaceOf(machine, address);
  out->problem(
      driver.empty()
          ? fmt::format("no driver holds {}", address)
          : fmt::format("the kernel's driver {} holds {}{}", driver, address,
                        interface.empty() ? "" : " as " + interface),
      (interface.empty() ? ""
                         : fmt::format("ip link set {} down && ", interface)) +
          bind(address));
}

void checkOtherCards(const Machine& machine, const SwitchConfig& config,
                     Findings* out) {
  out->subject("network cards");
  for (const std::string& address : machine.list(kDevices)) {
    const bool port =
        std::ranges::any_of(config.ports, [&](const PortConfig& one) {
          return bess::Port::PciAddress(one.device) == address;
        });
    if (port || !isNetworkCard(machine, address)) continue;
    const std::string driver = driverOf(machine, address);
    const std::string interface = interfaceOf(machine, address);
    const std::string use =
        inFile(config, fmt::format("device: \"{}\"", address));
    out->ok(fmt::format(
        "{} ({}:{}) {}{} and is no port; to make it one: {}", address,
        hex(machine, address, "vendor"), hex(machine, address, "device"),
        driver.empty() ? "has no driver" : "is held by " + driver,
        interface.empty() ? "" : " as " + interface,
        isForDpdk(driver) ? use : bind(address) + "; then " + use));
  }
}

}  // namespace ofswitch
