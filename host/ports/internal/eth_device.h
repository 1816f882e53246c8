// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <rte_ethdev.h>

#include <cstdint>
#include <string>

#include "dpdk_log.h"
#include "packet_pool.h"
#include "ports/internal/device_string.h"
#include "ports/internal/unix_socket.h"

namespace bess::internal {

// One of DPDK's Ethernet devices from its discovery to its removal. Failures
// are thrown as std::runtime_error; they do not name the device.
class EthDevice {
 public:
  struct Setup {
    uint16_t rx_queues;
    uint16_t tx_queues;
    uint16_t rx_descriptors;
    uint16_t tx_descriptors;
    uint16_t mtu;  // 0: the driver's own
    bool promiscuous;
    PacketPool* pool;
  };

  // Makes the device known to DPDK.
  explicit EthDevice(const DeviceString& device);
  // Stops it, frees what it holds and removes it from DPDK.
  ~EthDevice();
  EthDevice(const EthDevice&) = delete;
  EthDevice& operator=(const EthDevice&) = delete;

  uint16_t id() const { return id_; }
  const rte_eth_dev_info& info() const { return info_; }

  // Whether received and sent packets can be in several segments.
  bool receives_chains() const;
  bool sends_chains() const;

  // The longest payload of a frame that it can carry.
  uint16_t max_mtu() const;

  void Start(const Setup& setup);

 private:
  void Probe(const DpdkLogCapture& log);
  void SetUpQueues(const Setup& setup, const DpdkLogCapture& log);
  void Drain();

  const DeviceString device_;
  const ListeningSocket socket_;
  uint16_t id_ = 0;
  uint16_t rx_queues_ = 0;
  bool started_ = false;
  rte_eth_dev_info info_ = {};
};

}  // namespace bess::internal
