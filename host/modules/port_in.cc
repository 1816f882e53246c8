// SPDX-License-Identifier: BSD-3-Clause
#include "modules/port_in.h"

#include <rte_ethdev.h>

#include "internal/registered_class.h"
#include "modules/port_metadata.h"

using bess::DropCause;
using bess::Packet;
using bess::PacketBatch;
using bess::PortCounters;

const Commands PortIn::cmds;

namespace {
const bess::internal::RegisteredClass<PortIn> port_in_class(
    "PortIn", "port_in", "receives packets from one queue of a port");
}  // namespace

CommandResponse PortIn::Init(const bess::pb::PortInArg& arg) {
  bess::Port* port = bess::FindPort(arg.port());
  if (port == nullptr) {
    return CommandFailure(ENODEV, "there is no port '%s'", arg.port().c_str());
  }
  if (arg.queue() >= port->rx_queues()) {
    return CommandFailure(EINVAL, "queue %u: port '%s' has %u to receive from",
                          arg.queue(), arg.port().c_str(), port->rx_queues());
  }
  queue_ = static_cast<uint16_t>(arg.queue());
  if (!port->ClaimReceive(queue_)) {
    return CommandFailure(EBUSY,
                          "another module receives from queue %u of port '%s'",
                          arg.queue(), arg.port().c_str());
  }
  if (RegisterTask(nullptr) == INVALID_TASK_ID) {
    port->ReleaseReceive(queue_);
    return CommandFailure(ENOMEM, "cannot make a task");
  }
  port_ = port;
  return CommandSuccess();
}

void PortIn::DeInit() { port_->ReleaseReceive(queue_); }

task_result PortIn::RunTask(Context* ctx, PacketBatch* batch, void*) {
  Packet** pkts = batch->pkts();
  const uint16_t count =
      rte_eth_rx_burst(port_->id(), queue_, reinterpret_cast<rte_mbuf**>(pkts),
                       PacketBatch::kMaxBurst);
  if (count == 0) {
    return {.block = true, .packets = 0, .bits = 0};
  }
  for (uint16_t i = 0; i < count; i++) {
    rte_prefetch0(pkts[i]->metadata<void*>());
  }
  const uint32_t longest = port_->max_received_frame();
  PortCounters* counters = port_->counters(ctx->wid);
  uint64_t bytes = 0;
  for (uint16_t i = 0; i < count; i++) {
    Packet* pkt = pkts[i];
    const uint32_t len = static_cast<uint32_t>(pkt->total_len());
    if (len > longest) [[unlikely]] {
      counters->Drop(DropCause::kRxTooLong);
      DropPacket(ctx, pkt);
      continue;
    }
    bytes += len;
    pkt->clear_metadata_flags();
    pkt->set_tag(0);
    bess::SetReceivedOn(pkt, port_->number());
    batch->add(pkt);
  }
  const auto handed_on = static_cast<uint32_t>(batch->cnt());
  PortCounters::Add(counters->rx_packets, handed_on);
  PortCounters::Add(counters->rx_bytes, bytes);
  RunNextModule(ctx, batch);
  return {.block = false, .packets = handed_on, .bits = bytes * 8};
}

std::string PortIn::GetDesc() const {
  return port_->name() + ", queue " + std::to_string(queue_);
}
