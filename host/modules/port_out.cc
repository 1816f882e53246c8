// SPDX-License-Identifier: BSD-3-Clause
#include "modules/port_out.h"

#include <rte_ethdev.h>
#include <rte_pause.h>
#include <sched.h>

#include <cstring>

#include "internal/registered_class.h"

using bess::DropCause;
using bess::Packet;
using bess::PacketBatch;
using bess::Port;
using bess::PortCounters;

const Commands PortOut::cmds;

namespace {

const bess::internal::RegisteredClass<PortOut> port_out_class(
    "PortOut", "port_out", "sends packets from a port");

// Held while a burst is sent from a queue that several workers have. A holder
// that shares its core with the next one has to get on first.
class QueueLock {
 public:
  explicit QueueLock(rte_spinlock_t* lock) : lock_(lock) {
    for (int tries = 1; rte_spinlock_trylock(lock_) == 0; tries++) {
      if (tries % kSpins == 0) {
        sched_yield();
      } else {
        rte_pause();
      }
    }
  }
  ~QueueLock() { rte_spinlock_unlock(lock_); }
  QueueLock(const QueueLock&) = delete;
  QueueLock& operator=(const QueueLock&) = delete;

 private:
  static constexpr int kSpins = 256;
  rte_spinlock_t* lock_;
};

// The longest frame that is sent: devices allow for one 802.1Q tag.
uint32_t MaxLength(const Packet* pkt, uint32_t max_frame) {
  constexpr uint8_t kTag[] = {0x81, 0x00};
  constexpr uint16_t kEtherType = 12;
  const bool tagged =
      memcmp(pkt->head_data<const uint8_t*>(kEtherType), kTag, 2) == 0;
  return max_frame + (tagged ? Port::kTagLen : 0);
}

uint64_t TotalBytes(Packet* const* pkts, int cnt) {
  uint64_t bytes = 0;
  for (int i = 0; i < cnt; i++) {
    bytes += static_cast<uint64_t>(pkts[i]->total_len());
  }
  return bytes;
}

}  // namespace

PortOut::PortOut() { max_allowed_workers_ = Worker::kMaxWorkers; }

CommandResponse PortOut::Init(const bess::pb::PortOutArg& arg) {
  Port* port = bess::FindPort(arg.port());
  if (port == nullptr) {
    return CommandFailure(ENODEV, "there is no port '%s'", arg.port().c_str());
  }
  if (!port->ClaimSend()) {
    return CommandFailure(EBUSY, "another module sends from port '%s'",
                          arg.port().c_str());
  }
  port_ = port;
  queue_locks_ = std::make_unique<rte_spinlock_t[]>(port->tx_queues());
  DealQueues();
  return CommandSuccess();
}

void PortOut::DeInit() { port_->ReleaseSend(); }

int PortOut::OnEvent(bess::Event event) {
  if (event != bess::Event::PreResume) {
    return -ENOTSUP;
  }
  DealQueues();
  return 0;
}

// Workers that are not known to run this module must take turns with all
// others, so that packets from outside the graph's tasks do no harm either.
void PortOut::DealQueues() {
  const int workers = num_active_workers();
  const uint16_t queues = port_->tx_queues();
  int rank = 0;
  for (int wid = 0; wid < Worker::kMaxWorkers; wid++) {
    const bool active = is_active_worker(wid);
    lanes_[wid] = {
        .queue = static_cast<uint16_t>((active ? rank++ : wid) % queues),
        .shared = !active || workers > queues};
  }
}

// For batches that are not plainly fit: shorter or longer packets than most
// devices take, in more pieces, or for a port that is down.
std::optional<DropCause> PortOut::Unfit(Packet* pkt, bool up) const {
  if (!up) {
    return DropCause::kTxPortDown;
  }
  const auto len = static_cast<uint32_t>(pkt->total_len());
  if (len < Port::kHeaderLen) {
    return DropCause::kTxTooShort;
  }
  const uint32_t max_frame = port_->max_frame();
  if (len > max_frame && len > MaxLength(pkt, max_frame)) {
    return DropCause::kTxTooLong;
  }
  if (pkt->nb_segs() > port_->max_segments() &&
      rte_pktmbuf_linearize(pkt->mbuf()) != 0) {
    return DropCause::kTxTooManySegments;
  }
  return std::nullopt;
}

uint16_t PortOut::Burst(const Lane& lane, Packet** pkts, uint16_t count) {
  rte_mbuf** mbufs = reinterpret_cast<rte_mbuf**>(pkts);
  if (!lane.shared) {
    return rte_eth_tx_burst(port_->id(), lane.queue, mbufs, count);
  }
  const QueueLock lock(&queue_locks_[lane.queue]);
  return rte_eth_tx_burst(port_->id(), lane.queue, mbufs, count);
}

// Keeps those packets of the first `cnt` that can be sent, in their order, and
// drops the others. Answers how many are left.
int PortOut::DropUnfit(Context* ctx, Packet** pkts, int cnt, bool up,
                       PortCounters* counters) {
  int left = 0;
  for (int i = 0; i < cnt; i++) {
    if (const auto cause = Unfit(pkts[i], up); cause.has_value()) {
      counters->Drop(*cause);
      DropPacket(ctx, pkts[i]);
    } else {
      pkts[left++] = pkts[i];
    }
  }
  return left;
}

void PortOut::ProcessBatch(Context* ctx, PacketBatch* batch) {
  PortCounters* counters = port_->counters(ctx->wid);
  Packet** pkts = batch->pkts();
  int cnt = batch->cnt();
  PortCounters::Add(counters->tx_entered, static_cast<uint64_t>(cnt));

  const bool up = port_->link_up();
  const uint32_t longest_payload = port_->mtu();
  const int max_segments = port_->max_segments();
  bool plain = up;  // all of them, as nearly always
  uint64_t bytes = 0;
#pragma GCC unroll 4
  for (int i = 0; i < cnt; i++) {
    const auto len = static_cast<uint32_t>(pkts[i]->total_len());
    // Below the header's length it wraps around and is too long. No &&, which
    // would be a jump for each packet.
    plain &= len - Port::kHeaderLen <= longest_payload;
    plain &= pkts[i]->nb_segs() <= max_segments;
    bytes += len;
  }
  if (!plain) [[unlikely]] {
    cnt = DropUnfit(ctx, pkts, cnt, up, counters);
    bytes = TotalBytes(pkts, cnt);
  }

  // Packets that were sent are the device's: only the others are looked at.
  const Lane& lane = lanes_[ctx->wid];
  int sent = 0;
  for (int tries = 0; sent < cnt && tries <= kRetries; tries++) {
    sent += Burst(lane, pkts + sent, static_cast<uint16_t>(cnt - sent));
  }
  bytes -= TotalBytes(pkts + sent, cnt - sent);
  for (int i = sent; i < cnt; i++) {
    counters->Drop(DropCause::kTxQueueFull);
    DropPacket(ctx, pkts[i]);
  }
  PortCounters::Add(counters->tx_packets, static_cast<uint64_t>(sent));
  PortCounters::Add(counters->tx_bytes, bytes);
}

std::string PortOut::GetDesc() const { return port_->name(); }
