// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ports/internal/unix_socket.h"

namespace bess::internal {

// What is known of a virtual driver beyond what it tells DPDK.
struct VirtualDriver {
  std::string_view name;
  std::string_view example;
  std::string_view keys;  // of its arguments, with a space after each

  // It spreads packets over all queues that its arguments call for, so that all
  // of them have to be read.
  bool all_queues = false;

  // It wants as many transmit as receive queues.
  bool paired_queues = false;

  // It carries packets of several segments without offering to.
  bool chains = false;

  // What it counts as failed is not lost: it did not take the packet, or it
  // tries again.
  bool errors_are_no_losses = false;

  // It keeps packets beyond the closing of the device.
  bool keeps_packets = false;

  // Where it listens for peers unless told otherwise. It gives that up only
  // some time after it was closed.
  std::string_view socket = {};

  // Its devices are network interfaces of the kernel.
  bool interface = false;

  // It fills its receive queue with buffers when it is set up.
  bool fills_queue = false;

  // The longest payload, where the driver does not tell; 0: it does.
  unsigned max_mtu = 0;
};

// A device as DPDK names it, taken apart.
struct DeviceString {
  std::string text;
  std::string name;
  std::vector<std::pair<std::string, std::string>> args;
  bool pci = false;
  const VirtualDriver* driver = nullptr;  // null for a PCI device or unknown

  explicit DeviceString(const std::string& device);

  // The value of an argument, null when there is none.
  const std::string* Find(std::string_view key) const;

  // Where the device waits for its peers.
  UnixAddress ListensAt() const;

  // The value of an argument as a number.
  unsigned long Number(std::string_view key, unsigned long otherwise) const;
};

// What can be written for a device, by example.
std::string KnownDrivers();

// What is wrong with the device as far as it can be told without touching it:
// an unknown argument, a missing interface or file, a missing permission. Says
// what would be right. Empty when nothing is found.
std::string CheckDevice(const DeviceString& device);

}  // namespace bess::internal
