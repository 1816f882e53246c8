// SPDX-License-Identifier: BSD-3-Clause
#include "ports/internal/device_string.h"

#include <rte_dev.h>
#include <rte_pci.h>

#include <algorithm>
#include <array>
#include <cstdlib>

#include "ports/internal/host_checks.h"

namespace bess::internal {
namespace {

// The drivers that are tested. Any other driver that DPDK has can be used, too.
constexpr std::array kVirtualDrivers = {
    VirtualDriver{.name = "net_af_packet",
                  .example = "net_af_packet0,iface=eth1",
                  .keys = "iface qpairs blocksz framesz framecnt qdisc_bypass ",
                  .all_queues = true,
                  .paired_queues = true,
                  .errors_are_no_losses = true,
                  .interface = true},
    VirtualDriver{.name = "net_tap",
                  .example = "net_tap0,iface=tap1",
                  .keys = "iface mac remote ",
                  .paired_queues = true,
                  .errors_are_no_losses = true,
                  .interface = true,
                  .fills_queue = true},
    VirtualDriver{.name = "net_pcap",
                  .example = "net_pcap0,rx_pcap=in.pcap,tx_pcap=out.pcap",
                  .keys = "rx_pcap tx_pcap rx_iface rx_iface_in tx_iface iface "
                          "phy_mac infinite_rx ",
                  .all_queues = true,
                  .chains = true,
                  .max_mtu = 9600},
    VirtualDriver{.name = "net_memif",
                  .example = "net_memif0,role=client,socket=/run/memif.sock",
                  .keys = "id role bsize rsize socket socket-abstract mac "
                          "zero-copy secret ",
                  .socket = "/run/memif.sock"},
    VirtualDriver{.name = "net_ring",
                  .example = "net_ring0",
                  .keys = "nodeaction ",
                  .paired_queues = true,
                  .keeps_packets = true},
    VirtualDriver{.name = "net_null",
                  .example = "net_null0,size=64",
                  .keys = "size copy no-rx ",
                  .chains = true},
};

const VirtualDriver* FindVirtualDriver(std::string_view device) {
  for (const VirtualDriver& driver : kVirtualDrivers) {
    // What follows the driver's name tells its devices apart: "net_tap0".
    if (device.starts_with(driver.name) &&
        (device.size() == driver.name.size() ||
         (device[driver.name.size()] >= '0' &&
          device[driver.name.size()] <= '9'))) {
      return &driver;
    }
  }
  return nullptr;
}

std::string CheckArguments(const DeviceString& device) {
  for (const auto& [key, value] : device.args) {
    const std::string_view keys = device.driver->keys;
    if (key.empty() ||
        (" " + std::string(keys)).find(" " + key + " ") == std::string::npos) {
      std::string list(keys.substr(0, keys.size() - 1));
      std::replace(list.begin(), list.end(), ' ', ',');
      return "unknown argument '" + key +
             "': " + std::string(device.driver->name) + " takes " + list;
    }
    if (value.empty()) {
      return "argument '" + key + "' has no value: write " + key + "=...";
    }
  }
  return "";
}

std::string CheckFiles(const DeviceString& device) {
  for (const auto& [key, value] : device.args) {
    std::string error;
    if (key == "rx_pcap") {
      error = CheckReadable(value);
    } else if (key == "tx_pcap") {
      error = CheckCreatable(value);
    } else if (key == "remote" ||
               (key.ends_with("iface") && device.driver->name != "net_tap") ||
               key == "rx_iface_in") {
      error = CheckInterface(value);
    }
    if (!error.empty()) {
      return error;
    }
  }
  return "";
}

std::string CheckVirtual(const DeviceString& device) {
  if (std::string error = CheckArguments(device); !error.empty()) {
    return error;
  }
  const std::string_view driver = device.driver->name;
  if (driver == "net_af_packet") {
    if (device.Find("iface") == nullptr) {
      return "no interface is named: write " +
             std::string(device.driver->example);
    }
    // A ring frame must fit a packet buffer without the kernel's header.
    constexpr unsigned long kLeast = 512;
    constexpr unsigned long kMost = 2080;
    if (const unsigned long size = device.Number("framesz", 2048);
        size < kLeast || size > kMost) {
      return "framesz=" + *device.Find("framesz") + ": must be " +
             std::to_string(kLeast) + " to " + std::to_string(kMost);
    }
    if (std::string error = CheckPacketSockets(); !error.empty()) {
      return error;
    }
  } else if (driver == "net_tap") {
    if (std::string error = CheckTun(); !error.empty()) {
      return error;
    }
  } else if (driver == "net_pcap") {
    if (device.args.empty()) {
      return "nothing to read from or to write to is named: write " +
             std::string(device.driver->example);
    }
  } else if (driver == "net_null") {
    // The driver does not ask how much its buffers hold.
    constexpr unsigned long kMost = 2048;
    if (const unsigned long size = device.Number("size", 64);
        size < 14 || size > kMost) {
      return "size=" + *device.Find("size") +
             ": net_null makes frames of 14 to " + std::to_string(kMost) +
             " bytes";
    }
  }
  if (std::string error = CheckListen(device.ListensAt()); !error.empty()) {
    return error;
  }
  return CheckFiles(device);
}

}  // namespace

std::string KnownDrivers() {
  std::string list = "a PCI address (0000:03:00.0)";
  for (const VirtualDriver& driver : kVirtualDrivers) {
    list += ", " + std::string(driver.example);
  }
  return list;
}

DeviceString::DeviceString(const std::string& device) : text(device) {
  size_t at = device.find(',');
  name = device.substr(0, at);
  while (at != std::string::npos) {
    const size_t end = device.find(',', at + 1);
    const std::string arg =
        device.substr(at + 1, end == std::string::npos ? end : end - at - 1);
    const size_t equals = arg.find('=');
    args.emplace_back(arg.substr(0, equals), equals == std::string::npos
                                                 ? ""
                                                 : arg.substr(equals + 1));
    at = end;
  }
  rte_pci_addr address;
  if (rte_pci_addr_parse(name.c_str(), &address) == 0) {
    pci = true;
    char full[PCI_PRI_STR_SIZE];
    rte_pci_device_name(&address, full, sizeof(full));
    name = full;
  } else {
    driver = FindVirtualDriver(name);
  }
}

const std::string* DeviceString::Find(std::string_view key) const {
  for (const auto& [name, value] : args) {
    if (name == key) {
      return &value;
    }
  }
  return nullptr;
}

UnixAddress DeviceString::ListensAt() const {
  if (driver == nullptr || driver->socket.empty()) {
    return {};
  }
  const std::string* role = Find("role");
  if (role == nullptr || (*role != "server" && *role != "master")) {
    return {};
  }
  const std::string* socket = Find("socket");
  const std::string* abstract = Find("socket-abstract");
  return {.name = socket != nullptr ? *socket : std::string(driver->socket),
          .abstract = abstract == nullptr || *abstract != "no"};
}

unsigned long DeviceString::Number(std::string_view key,
                                   unsigned long otherwise) const {
  const std::string* value = Find(key);
  return value != nullptr ? strtoul(value->c_str(), nullptr, 0) : otherwise;
}

std::string CheckDevice(const DeviceString& device) {
  if (device.name.empty()) {
    return "no device is named: write " + KnownDrivers();
  }
  if (device.name.size() >= RTE_DEV_NAME_MAX_LEN) {
    return "the device's name is longer than " +
           std::to_string(RTE_DEV_NAME_MAX_LEN - 1) + " characters";
  }
  if (device.pci) {
    return CheckPci(device.name);
  }
  return device.driver != nullptr ? CheckVirtual(device) : "";
}

}  // namespace bess::internal
