// SPDX-License-Identifier: BSD-3-Clause
//
// Ports that are rings, as ThreadSanitizer should see them: what was done to a
// packet before it was put on the ring happens before what is done with it by
// the thread that receives it. The driver is not instrumented. Code of ours
// that uses such a ring itself stores and loads the same tails, in the ring's
// variant that is made of atomic operations.
#include <rte_ethdev.h>
#include <rte_ring.h>
#include <sanitizer/tsan_interface.h>

#include <array>
#include <string>
#include <utility>

#include "tests/support/next_definition.h"

using openflow_test::next;

namespace {

struct Port {
  rte_ring* ring = nullptr;  // both ways
  eth_rx_burst_t receive = nullptr;
  eth_tx_burst_t send = nullptr;
};
std::array<Port, RTE_MAX_ETHPORTS> ports;

// Where a packet that is on the ring begins to be seen.
void* tail(const Port& port) {
  return const_cast<uint32_t*>(&port.ring->prod.tail);
}

template <size_t id>
uint16_t receive(void* queue, rte_mbuf** packets, uint16_t count) {
  const Port& port = ports[id];
  const uint16_t received = port.receive(queue, packets, count);
  if (received > 0) __tsan_acquire(tail(port));
  return received;
}

template <size_t id>
uint16_t send(void* queue, rte_mbuf** packets, uint16_t count) {
  const Port& port = ports[id];
  __tsan_release(tail(port));
  return port.send(queue, packets, count);
}

template <size_t... ids>
constexpr std::array<eth_rx_burst_t, sizeof...(ids)> receivers(
    std::index_sequence<ids...>) {
  return {receive<ids>...};
}

template <size_t... ids>
constexpr std::array<eth_tx_burst_t, sizeof...(ids)> senders(
    std::index_sequence<ids...>) {
  return {send<ids>...};
}

constexpr std::make_index_sequence<RTE_MAX_ETHPORTS> kPorts;
constexpr auto kReceivers = receivers(kPorts);
constexpr auto kSenders = senders(kPorts);

}  // namespace

extern "C" {

// The driver's functions are called through a table, which the start fills.
int rte_eth_dev_start(uint16_t id) {
  static auto* real = next<decltype(rte_eth_dev_start)>("rte_eth_dev_start");
  const int rc = real(id);
  char device[RTE_ETH_NAME_MAX_LEN];
  if (rc != 0 || rte_eth_dev_get_name_by_port(id, device) != 0) return rc;
  rte_ring* ring =
      rte_ring_lookup((std::string("ETH_RXTX0_") + device).c_str());
  if (ring == nullptr) return rc;
  auto& table = rte_eth_fp_ops[id];
  ports[id] = {ring, table.rx_pkt_burst, table.tx_pkt_burst};
  table.rx_pkt_burst = kReceivers[id];
  table.tx_pkt_burst = kSenders[id];
  return rc;
}

}  // extern "C"
