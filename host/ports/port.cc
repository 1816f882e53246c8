// SPDX-License-Identifier: BSD-3-Clause
#include "ports/port.h"

#include <rte_ethdev.h>
#include <rte_ether.h>

#include <algorithm>
#include <stdexcept>

#include "eal.h"
#include "ports/internal/device_string.h"
#include "ports/internal/eth_device.h"
#include "ports/internal/kernel_interface.h"

namespace bess {

using internal::DeviceString;
using internal::EthDevice;
using internal::KernelInterface;
using internal::PacketSockets;

namespace {

constexpr uint16_t kMinMtu = 68;  // of IPv4

// net_af_packet receives into ring frames of a fixed size, in which the kernel
// puts its own header of this size in front. What does not fit is cut off.
constexpr unsigned kRingFrameHeader = 66;
constexpr unsigned kRingFrameDefault = 2048;

// One byte more than a frame with two tags has, so that a cut one shows.
constexpr unsigned kRingFrameSpare = Port::kHeaderLen + 2 * Port::kTagLen + 1;

uint16_t Descriptors(uint16_t asked, uint16_t recommended) {
  return asked != 0         ? asked
         : recommended != 0 ? recommended
                            : Port::kDefaultDescriptors;
}

uint64_t Since(uint64_t before, uint64_t now) {
  return now > before ? now - before : 0;
}

}  // namespace

Port::Port(std::string name, const PortOptions& options)
    : name_(std::move(name)), options_(options) {
  try {
    if (!EalReady()) {
      throw std::runtime_error("DPDK is not started");
    }
    Open();
  } catch (const std::runtime_error& failure) {
    throw std::runtime_error("port '" + name_ + "', device '" +
                             options_.device + "': " + failure.what());
  }
}

Port::~Port() = default;

bool Port::IsPci(const std::string& device) { return DeviceString(device).pci; }

std::string Port::PciAddress(const std::string& device) {
  const DeviceString parts(device);
  return parts.pci ? parts.name : "";
}

std::string Port::Fault(const std::string& device) {
  return internal::CheckDevice(DeviceString(device));
}

bool Port::SharesMemory(const std::string& device) {
  const DeviceString parts(device);
  const std::string* zero_copy = parts.Find("zero-copy");
  return parts.name.starts_with("net_virtio_user") ||
         (zero_copy != nullptr && *zero_copy == "yes");
}

void Port::Open() {
  const DeviceString device(options_.device);
  if (const std::string error = internal::CheckDevice(device); !error.empty()) {
    throw std::runtime_error(error);
  }
  if (options_.pool == nullptr) {
    options_.pool = PacketPool::Default();
  }
  eth_ = std::make_unique<EthDevice>(device);
  id_ = eth_->id();
  const rte_eth_dev_info& info = eth_->info();
  driver_ = info.driver_name;
  if (device.driver != nullptr && device.driver->interface) {
    interface_ = std::make_unique<KernelInterface>(info.if_index);
  }
  if (driver_ == "net_af_packet") {
    sockets_ = std::make_unique<PacketSockets>(info.if_index);
    if (const int error = sockets_->IgnoreOutgoing(); error != 0) {
      throw std::runtime_error(
          std::string("what the kernel sends there cannot be told from what "
                      "comes in: ") +
          rte_strerror(error));
    }
    cuts_frames_ = true;
  }
  errors_are_no_losses_ =
      device.driver != nullptr && device.driver->errors_are_no_losses;
  if (eth_->sends_chains()) {
    const uint16_t most = info.tx_desc_lim.nb_seg_max;
    max_segments_ = most != 0 ? most : UINT16_MAX;
  }
  ChooseQueues(device);
  eth_->Start({
      .rx_queues = rx_queues_,
      .tx_queues = tx_queues_,
      .rx_descriptors = Descriptors(options_.rx_descriptors,
                                    info.default_rxportconf.ring_size),
      .tx_descriptors = Descriptors(options_.tx_descriptors,
                                    info.default_txportconf.ring_size),
      .mtu = ChooseMtu(device),
      .promiscuous = options_.promiscuous,
      .pool = options_.pool,
  });
  before_ = ReadDevice();
  Refresh();
}

void Port::ChooseQueues(const DeviceString& device) {
  const rte_eth_dev_info& info = eth_->info();
  const auto within = [](uint16_t wish, uint16_t most) {
    return std::clamp<uint16_t>(wish, 1, std::max<uint16_t>(most, 1));
  };
  rx_queues_ = within(options_.rx_queues, info.max_rx_queues);
  tx_queues_ = within(options_.tx_queues, info.max_tx_queues);
  if (device.driver != nullptr && device.driver->all_queues) {
    rx_queues_ = within(UINT16_MAX, info.max_rx_queues);
    tx_queues_ = within(UINT16_MAX, info.max_tx_queues);
  }
  if (device.driver != nullptr && device.driver->paired_queues) {
    const uint16_t both = std::max(rx_queues_, tx_queues_);
    rx_queues_ = tx_queues_ =
        within(both, std::min(info.max_rx_queues, info.max_tx_queues));
  }
  receive_claimed_.assign(rx_queues_, false);
}

// Makes sure that the device carries frames of the MTU that it has or gets.
// Answers the one to tell DPDK of, 0 for none.
uint16_t Port::ChooseMtu(const DeviceString& device) {
  if (options_.mtu != 0 && options_.mtu < kMinMtu) {
    throw std::runtime_error("the MTU must be at least " +
                             std::to_string(kMinMtu));
  }
  max_mtu_ = eth_->max_mtu();
  if (cuts_frames_) {
    max_mtu_ =
        static_cast<uint16_t>(device.Number("framesz", kRingFrameDefault) -
                              kRingFrameHeader - kRingFrameSpare);
  }
  unsigned mtu = options_.mtu;
  std::string remedy = "ask for no more";
  if (interface_ != nullptr) {
    const unsigned now = interface_->mtu().value_or(0);
    mtu = mtu != 0 ? mtu : now;
    if (options_.mtu == 0) {
      remedy = "ip link set dev " + interface_->name() + " mtu " +
               std::to_string(max_mtu_);
    }
  }
  if (mtu > max_mtu_) {
    throw std::runtime_error("MTU " + std::to_string(mtu) + ": " + driver_ +
                             " carries at most " + std::to_string(max_mtu_) +
                             " bytes behind the Ethernet header; " + remedy);
  }
  if (interface_ == nullptr) {
    return options_.mtu;
  }
  if (const int error = options_.mtu != 0 ? interface_->set_mtu(mtu) : 0) {
    throw std::runtime_error("the MTU of interface " + interface_->name() +
                             " cannot be set to " + std::to_string(mtu) + ": " +
                             rte_strerror(error));
  }
  // The interface's own is what counts where DPDK cannot be told of it.
  return cuts_frames_ ? 0 : static_cast<uint16_t>(mtu);
}

std::string Port::mac() const {
  rte_ether_addr address = {};
  rte_eth_macaddr_get(id_, &address);
  char text[RTE_ETHER_ADDR_FMT_SIZE];
  rte_ether_format_addr(text, sizeof(text), &address);
  std::string mac = text;
  std::transform(mac.begin(), mac.end(), mac.begin(),
                 [](unsigned char c) { return std::tolower(c); });
  return mac;
}

PortLink Port::link() const {
  rte_eth_link device = {};
  if (rte_eth_link_get_nowait(id_, &device) != 0) {
    return {};
  }
  PortLink link = {
      .up = device.link_status == RTE_ETH_LINK_UP,
      .mbps = device.link_speed == RTE_ETH_SPEED_NUM_UNKNOWN
                  ? 0
                  : device.link_speed,
      .full_duplex = device.link_duplex == RTE_ETH_LINK_FULL_DUPLEX,
  };
  if (interface_ != nullptr) {
    // A tap that is out of sight is in another namespace, and taken for up:
    // packets will tell. Packet sockets do not follow their interface.
    link.up = interface_->up().value_or(sockets_ == nullptr);
    link.mbps = interface_->speed().value_or(0);
  }
  return link;
}

void Port::Refresh() {
  const bool up = link().up;
  if (up && !link_up() && sockets_ != nullptr) {
    sockets_->SendWaiting();
  }
  link_up_.store(up, std::memory_order_relaxed);
  uint16_t mtu = 0;
  if (interface_ != nullptr) {
    mtu = static_cast<uint16_t>(
        std::min<unsigned>(interface_->mtu().value_or(this->mtu()), max_mtu_));
  } else if (rte_eth_dev_get_mtu(id_, &mtu) != 0) {
    return;
  }
  mtu_.store(mtu, std::memory_order_relaxed);
}

Port::DeviceCounts Port::ReadDevice() const {
  rte_eth_stats stats = {};
  rte_eth_stats_get(id_, &stats);
  DeviceCounts counts = {
      .missed = stats.imissed,
      .no_buffer = stats.rx_nombuf,
      .rx_errors = stats.ierrors,
      .tx_errors = errors_are_no_losses_ ? 0 : stats.oerrors,
  };
  if (sockets_ != nullptr) {
    counts.missed += sockets_->Missed();
  }
  return counts;
}

PortStats Port::stats() const {
  PortStats sum;
  for (const PortCounters& one : counters_) {
    const auto read = [](const std::atomic<uint64_t>& counter) {
      return counter.load(std::memory_order_relaxed);
    };
    sum.rx_packets += read(one.rx_packets);
    sum.rx_bytes += read(one.rx_bytes);
    sum.tx_entered += read(one.tx_entered);
    sum.tx_packets += read(one.tx_packets);
    sum.tx_bytes += read(one.tx_bytes);
    for (size_t i = 0; i < kNumDropCauses; i++) {
      sum.drops[i] += read(one.drops[i]);
    }
  }
  const DeviceCounts now = ReadDevice();
  const uint64_t failed =
      std::min(Since(before_.tx_errors, now.tx_errors), sum.tx_packets);
  sum.tx_packets -= failed;
  sum.drops[Index(DropCause::kTxError)] += failed;
  sum.drops[Index(DropCause::kRxMissed)] += Since(before_.missed, now.missed);
  sum.drops[Index(DropCause::kRxNoBuffer)] +=
      Since(before_.no_buffer, now.no_buffer);
  sum.drops[Index(DropCause::kRxError)] +=
      Since(before_.rx_errors, now.rx_errors);

  sum.rx_received = sum.rx_packets;
  for (const DropCauseInfo& info : kDropCauses) {
    if (info.receive) {
      sum.rx_received += sum.drop(info.cause);
    }
  }
  return sum;
}

bool Port::ClaimReceive(uint16_t queue) {
  if (receive_claimed_[queue]) {
    return false;
  }
  receive_claimed_[queue] = true;
  return true;
}

bool Port::ClaimSend() { return !std::exchange(send_claimed_, true); }

bool Port::in_use() const {
  return send_claimed_ ||
         std::find(receive_claimed_.begin(), receive_claimed_.end(), true) !=
             receive_claimed_.end();
}

}  // namespace bess
