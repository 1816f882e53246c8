// SPDX-License-Identifier: BSD-3-Clause
#include "modules/sink.h"

#include <atomic>
#include <cstring>
#include <utility>

#include "internal/registered_class.h"

using bess::Packet;
using bess::PacketBatch;

const Commands Sink::cmds;

namespace {

const bess::internal::RegisteredClass<Sink> sink_class(
    "Sink", "sink", "keeps the packets that enter it for a program to read");

std::atomic<uint64_t> next_order = 0;

std::string Bytes(const Packet* pkt) {
  std::string bytes;
  int segments = pkt->nb_segs();
  for (; segments > 0; segments--, pkt = pkt->next()) {
    bytes.append(pkt->head_data<const char*>(), pkt->head_len());
  }
  return bytes;
}

}  // namespace

Sink::Sink() { max_allowed_workers_ = Worker::kMaxWorkers; }

void Sink::ProcessBatch(Context* ctx, PacketBatch* batch) {
  {
    const std::lock_guard lock(mutex_);
    batches_.push_back(batch->cnt());
    for (int i = 0; i < batch->cnt(); i++) {
      const Packet* pkt = batch->pkts()[i];
      Captured& one = captured_.emplace_back();
      one.order = next_order++;
      one.igate = ctx->current_igate;
      one.wid = ctx->wid;
      one.tag = pkt->tag();
      one.port = pkt->port();
      one.segments = pkt->nb_segs();
      one.bytes = Bytes(pkt);
      memcpy(one.metadata.data(), pkt->metadata<const char*>(),
             one.metadata.size());
    }
  }
  Packet::Free(batch);
}

std::vector<Sink::Captured> Sink::Take() {
  const std::lock_guard lock(mutex_);
  batches_.clear();
  return std::exchange(captured_, {});
}

std::vector<int> Sink::batches() const {
  const std::lock_guard lock(mutex_);
  return batches_;
}

size_t Sink::count() const {
  const std::lock_guard lock(mutex_);
  return captured_.size();
}
