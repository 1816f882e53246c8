// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "packet_pool.h"
#include "ports/port_stats.h"
#include "worker.h"

namespace bess::internal {
struct DeviceString;
class EthDevice;
class KernelInterface;
class PacketSockets;
}  // namespace bess::internal

namespace bess {

struct PortOptions {
  // As DPDK names it: a PCI address ("0000:03:00.0"), or a virtual device with
  // its arguments ("net_af_packet0,iface=veth1").
  std::string device;

  // Packets received here carry it as their in-port.
  uint32_t number = 0;

  // How many queues are wished for. Port::rx_queues() and tx_queues() tell how
  // many there are: no more than the device has, all of them where a device
  // spreads packets over all that it has, and as many of one kind as of the
  // other where a device wants that.
  uint16_t rx_queues = 1;
  uint16_t tx_queues = 1;

  // Descriptors of a queue; 0 leaves it to the driver.
  uint16_t rx_descriptors = 0;
  uint16_t tx_descriptors = 0;

  // The longest payload of an Ethernet frame; 0 leaves it as it is. A device
  // that cannot carry it refuses to open.
  uint16_t mtu = 0;

  bool promiscuous = true;

  // Where received packets come from; null for the default pool.
  PacketPool* pool = nullptr;
};

struct PortLink {
  bool up = false;
  uint32_t mbps = 0;  // 0 when unknown
  bool full_duplex = false;
};

// An Ethernet device of DPDK's, in use from construction to destruction. It may
// be opened again afterwards.
//
// Opened, closed and asked for its state on control threads, one at a time;
// workers reach it through PortIn and PortOut, which must be gone before it is.
class Port {
 public:
  static constexpr uint16_t kDefaultDescriptors = 512;
  static constexpr uint32_t kHeaderLen = 14;
  static constexpr uint32_t kTagLen = 4;

  // Finds the device, sets it up and starts it. DPDK must be started. Throws
  // std::runtime_error with a text for a person: it names the device string,
  // what is wrong with it and what would be right. Nothing is then left open.
  Port(std::string name, const PortOptions& options);
  ~Port();
  Port(const Port&) = delete;
  Port& operator=(const Port&) = delete;

  // Whether a device string means a PCI device. DPDK must be started with those
  // (EalOptions::pci).
  static bool IsPci(const std::string& device);

  // The address of such a device as the kernel writes it, "0000:0a:00.0", where
  // people write "A:0.0"; empty for any other device.
  static std::string PciAddress(const std::string& device);

  // What is wrong with a device string as far as it can be told without opening
  // the device: an unknown argument, a missing interface or file, a missing
  // permission. Says what would be right. Empty when nothing is found.
  static std::string Fault(const std::string& device);

  // Whether the device gives another process DPDK's memory to read and write,
  // which must then be a file (EalOptions::shareable).
  static bool SharesMemory(const std::string& device);

  const std::string& name() const { return name_; }
  const std::string& device() const { return options_.device; }
  uint32_t number() const { return options_.number; }
  const std::string& driver() const { return driver_; }
  uint16_t rx_queues() const { return rx_queues_; }
  uint16_t tx_queues() const { return tx_queues_; }

  // DPDK's number of the device.
  uint16_t id() const { return id_; }

  // As "02:00:00:00:00:01".
  std::string mac() const;

  PortLink link() const;

  uint16_t mtu() const { return mtu_.load(std::memory_order_relaxed); }

  // The longest frame, without its 802.1Q tag, that the port sends.
  uint32_t max_frame() const { return mtu() + kHeaderLen; }

  // The longest frame that can have come over the wire. What is longer was
  // merged from several by the interface and is cut off.
  uint32_t max_received_frame() const {
    return cuts_frames_ ? max_frame() + 2 * kTagLen : UINT32_MAX;
  }

  // Reads link and MTU again, for the data path to know. Ports that were opened
  // by name are refreshed ten times a second.
  void Refresh();

  // What Refresh has last seen. Nothing is sent while the link is down.
  bool link_up() const { return link_up_.load(std::memory_order_relaxed); }

  PortStats stats() const;

  // Of one worker.
  PortCounters* counters(int wid) { return &counters_[wid]; }

  // For PortIn and PortOut: reserve the receiving side of a queue or the
  // sending side of the port. False when another module has it.
  bool ClaimReceive(uint16_t queue);
  void ReleaseReceive(uint16_t queue) { receive_claimed_[queue] = false; }
  bool ClaimSend();
  void ReleaseSend() { send_claimed_ = false; }

  // Modules that have claimed something.
  bool in_use() const;

  // Whether the device sends packets of several segments, and of how many.
  uint16_t max_segments() const { return max_segments_; }

 private:
  // What the device and its interface have counted.
  struct DeviceCounts {
    uint64_t missed = 0;
    uint64_t no_buffer = 0;
    uint64_t rx_errors = 0;
    uint64_t tx_errors = 0;
  };

  void Open();
  void ChooseQueues(const internal::DeviceString& device);
  uint16_t ChooseMtu(const internal::DeviceString& device);
  DeviceCounts ReadDevice() const;

  const std::string name_;
  PortOptions options_;
  std::string driver_;
  uint16_t id_ = 0;
  uint16_t rx_queues_ = 0;
  uint16_t tx_queues_ = 0;
  uint16_t max_segments_ = 1;
  uint16_t max_mtu_ = UINT16_MAX;
  bool cuts_frames_ = false;
  bool errors_are_no_losses_ = false;
  std::atomic<uint16_t> mtu_ = 0;
  std::atomic<bool> link_up_ = false;

  std::vector<bool> receive_claimed_;
  bool send_claimed_ = false;

  std::unique_ptr<internal::EthDevice> eth_;
  // Of devices that are the kernel's interfaces.
  std::unique_ptr<internal::KernelInterface> interface_;
  std::unique_ptr<internal::PacketSockets> sockets_;

  DeviceCounts before_;  // counted when the port was opened
  std::array<PortCounters, Worker::kMaxWorkers> counters_;
};

// The ports of the process by name, which is how modules find them. These run
// on the command thread and may be called from any thread but a worker.

// Opens a port; an error text for a person, empty on success.
std::string OpenPort(const std::string& name, const PortOptions& options);

// Closes it; refused while a module uses it.
std::string ClosePort(const std::string& name);

// The port of that name, or null.
Port* FindPort(const std::string& name);

// All ports, in the order in which they were opened.
std::vector<Port*> ListPorts();

}  // namespace bess
