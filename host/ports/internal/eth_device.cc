// SPDX-License-Identifier: BSD-3-Clause
#include "ports/internal/eth_device.h"

#include <rte_dev.h>
#include <rte_errno.h>

#include <algorithm>
#include <mutex>
#include <set>
#include <stdexcept>

#include "pktbatch.h"
#include "ports/internal/host_checks.h"

namespace bess::internal {
namespace {

// An Ethernet header, one 802.1Q tag and the checksum.
constexpr uint32_t kOverhead = 22;

constexpr uint64_t kRssFields =
    RTE_ETH_RSS_IP | RTE_ETH_RSS_TCP | RTE_ETH_RSS_UDP;

// `code` is 0 or negative, as DPDK's functions answer.
void Check(int code, const std::string& what, const DpdkLogCapture& log) {
  if (code < 0) {
    const std::string why = log.Summary();
    throw std::runtime_error(what + ": " +
                             (why.empty() ? rte_strerror(-code) : why));
  }
}

// DPDK's numbers of the devices that are ports.
class OpenDevices {
 public:
  // Whether it was not one.
  bool Add(uint16_t id) {
    const std::lock_guard lock(mutex_);
    return ids_.insert(id).second;
  }
  void Remove(uint16_t id) {
    const std::lock_guard lock(mutex_);
    ids_.erase(id);
  }

 private:
  std::mutex mutex_;
  std::set<uint16_t> ids_;
};

OpenDevices open_devices;

std::string ProbeFailure(const DeviceString& device, int code,
                         const DpdkLogCapture& log) {
  if (code == -EEXIST) {
    return "DPDK has a device of that name already";
  }
  if (code == -EFAULT && IsInterface(device.name)) {
    return "it is an interface of the kernel's: write net_af_packet0,iface=" +
           device.name;
  }
  if (code == -EFAULT) {
    return "no driver of that name: write " + KnownDrivers();
  }
  if (device.pci && code == -ENODEV) {
    return "DPDK was started without it, or has no driver for it";
  }
  const std::string why = log.Summary();
  return why.empty() ? std::string("the driver refuses it: ") +
                           rte_strerror(code == -1 ? EINVAL : -code)
                     : "the driver refuses it: " + why;
}

}  // namespace

EthDevice::EthDevice(const DeviceString& device)
    : device_(device), socket_(device.ListensAt()) {
  const DpdkLogCapture log;
  // DPDK has taken cards at its start.
  if (rte_eth_dev_get_port_by_name(device.name.c_str(), &id_) != 0) {
    Probe(log);
  }
  if (!open_devices.Add(id_)) {
    throw std::runtime_error("the device is open already");
  }
  if (const int code = rte_eth_dev_info_get(id_, &info_); code != 0) {
    open_devices.Remove(id_);
    rte_eth_dev_close(id_);
    // As the destructor does, by name: the device has told nothing of itself.
    rte_eal_hotplug_remove(device.pci ? "pci" : "vdev", device.name.c_str());
    Check(code, "the device does not tell what it can do", log);
  }
}

void EthDevice::Probe(const DpdkLogCapture& log) {
  if (const int code = rte_dev_probe(device_.text.c_str()); code != 0) {
    throw std::runtime_error(ProbeFailure(device_, code, log));
  }
  if (rte_eth_dev_get_port_by_name(device_.name.c_str(), &id_) != 0) {
    rte_eal_hotplug_remove(device_.pci ? "pci" : "vdev", device_.name.c_str());
    throw std::runtime_error("it is no Ethernet device");
  }
}

EthDevice::~EthDevice() {
  const DpdkLogCapture log;
  if (started_) {
    Drain();
    rte_eth_dev_stop(id_);
  }
  // Closing a device frees its port; only its bus knows it then.
  rte_device* device = info_.device;
  open_devices.Remove(id_);
  rte_eth_dev_close(id_);
  if (device != nullptr) {
    rte_dev_remove(device);
  }
}

bool EthDevice::receives_chains() const {
  return (info_.rx_offload_capa & RTE_ETH_RX_OFFLOAD_SCATTER) != 0 ||
         (device_.driver != nullptr && device_.driver->chains);
}

bool EthDevice::sends_chains() const {
  return (info_.tx_offload_capa & RTE_ETH_TX_OFFLOAD_MULTI_SEGS) != 0 ||
         (device_.driver != nullptr && device_.driver->chains);
}

uint16_t EthDevice::max_mtu() const {
  uint32_t most = info_.max_mtu;
  // As DPDK itself works it out; see its rte_eth_dev_configure.
  if (info_.max_mtu == UINT16_MAX && info_.max_rx_pktlen != UINT32_MAX) {
    constexpr uint32_t kHeaderAndChecksum = 18;
    most = std::min(most, info_.max_rx_pktlen - kHeaderAndChecksum);
  }
  if (!receives_chains()) {
    most = std::min<uint32_t>(most, Packet::kDataRoom - kOverhead);
  }
  if (device_.driver != nullptr && device_.driver->max_mtu != 0) {
    most = std::min(most, device_.driver->max_mtu);
  }
  return static_cast<uint16_t>(most);
}

void EthDevice::Start(const Setup& setup) {
  const DpdkLogCapture log;
  rte_eth_conf conf = {};
  conf.rxmode.mtu = setup.mtu;
  conf.rxmode.offloads = info_.rx_offload_capa & RTE_ETH_RX_OFFLOAD_SCATTER;
  conf.txmode.offloads = info_.tx_offload_capa & RTE_ETH_TX_OFFLOAD_MULTI_SEGS;
  if (device_.pci && setup.rx_queues > 1) {
    conf.rxmode.mq_mode = RTE_ETH_MQ_RX_RSS;
    conf.rx_adv_conf.rss_conf.rss_hf =
        kRssFields & info_.flow_type_rss_offloads;
  }
  Check(rte_eth_dev_configure(id_, setup.rx_queues, setup.tx_queues, &conf),
        "it cannot have " + std::to_string(setup.rx_queues) + " receive and " +
            std::to_string(setup.tx_queues) + " transmit queues",
        log);
  SetUpQueues(setup, log);
  Check(rte_eth_dev_start(id_), "it does not start", log);
  started_ = true;
  rx_queues_ = setup.rx_queues;
  if (setup.promiscuous) {
    const int code = rte_eth_promiscuous_enable(id_);
    if (code != -ENOTSUP) {
      Check(code, "it does not receive what is sent to others", log);
    }
  }
}

void EthDevice::SetUpQueues(const Setup& setup, const DpdkLogCapture& log) {
  uint16_t rx = setup.rx_descriptors;
  uint16_t tx = setup.tx_descriptors;
  Check(rte_eth_dev_adjust_nb_rx_tx_desc(id_, &rx, &tx),
        "it cannot have queues of that many descriptors", log);

  const bool holds_buffers =
      device_.pci || (device_.driver != nullptr && device_.driver->fills_queue);
  if (const size_t held = size_t{rx} * setup.rx_queues;
      holds_buffers && setup.pool->capacity() < held) {
    throw std::runtime_error(
        "its receive queues hold " + std::to_string(held) +
        " packets, but the packet pool has only " +
        std::to_string(setup.pool->capacity()) +
        ": give it fewer descriptors or the pool more packets");
  }
  for (uint16_t queue = 0; queue < setup.rx_queues; queue++) {
    Check(rte_eth_rx_queue_setup(id_, queue, rx, SOCKET_ID_ANY, nullptr,
                                 setup.pool->mempool()),
          "receive queue " + std::to_string(queue) + " cannot be set up", log);
  }
  for (uint16_t queue = 0; queue < setup.tx_queues; queue++) {
    Check(rte_eth_tx_queue_setup(id_, queue, tx, SOCKET_ID_ANY, nullptr),
          "transmit queue " + std::to_string(queue) + " cannot be set up", log);
  }
}

// Frees packets that would still be there when the device is opened again.
void EthDevice::Drain() {
  if (device_.driver == nullptr || !device_.driver->keeps_packets) {
    return;
  }
  for (uint16_t queue = 0; queue < rx_queues_; queue++) {
    rte_mbuf* mbufs[PacketBatch::kMaxBurst];
    while (const uint16_t count =
               rte_eth_rx_burst(id_, queue, mbufs, PacketBatch::kMaxBurst)) {
      rte_pktmbuf_free_bulk(mbufs, count);
    }
  }
}

}  // namespace bess::internal
