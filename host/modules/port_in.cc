// SPDX-License-Identifier: BSD-3-Clause
#include "modules/port_in.h"

#include <rte_ethdev.h>
#include <rte_prefetch.h>

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
#pragma GCC unroll 4
  for (uint16_t i = 0; i < count; i++) {
    rte_prefetch0(pkts[i]->metadata<void*>());
  }
  const uint32_t number = port_->number();
  const uint32_t longest = port_->max_received_frame();
  PortCounters* counters = port_->counters(ctx->wid);
  batch->set_cnt(count);
  bool fit = true;  // all of them, as nearly always
  uint64_t bytes = 0;
#pragma GCC unroll 4
  for (uint16_t i = 0; i < count; i++) {
    const auto len = static_cast<uint32_t>(pkts[i]->total_len());
    fit &= len <= longest;
    bytes += len;
    pkts[i]->set_tag(0);
    bess::SetReceivedOn(pkts[i], number);
  }
  if (!fit) [[unlikely]] {
    bytes -= DropTooLong(ctx, batch, longest, counters);
  }
  const auto handed_on = static_cast<uint32_t>(batch->cnt());
  PortCounters::Add(counters->rx_packets, handed_on);
  PortCounters::Add(counters->rx_bytes, bytes);
  RunNextModule(ctx, batch);
  return {.block = false, .packets = handed_on, .bits = bytes * 8};
}

// The others stay, in their order. Answers how many bytes went.
uint64_t PortIn::DropTooLong(Context* ctx, PacketBatch* batch, uint32_t longest,
                             PortCounters* counters) {
  const int cnt = batch->cnt();
  uint64_t bytes = 0;
  batch->clear();
  for (int i = 0; i < cnt; i++) {
    Packet* pkt = batch->pkts()[i];
    const auto len = static_cast<uint32_t>(pkt->total_len());
    if (len <= longest) {
      batch->add(pkt);
    } else {
      bytes += len;
      counters->Drop(DropCause::kRxTooLong);
      DropPacket(ctx, pkt);
    }
  }
  return bytes;
}

std::string PortIn::GetDesc() const {
  return port_->name() + ", queue " + std::to_string(queue_);
}
