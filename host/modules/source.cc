// SPDX-License-Identifier: BSD-3-Clause
// The variant of DPDK's ring that states its memory order in atomics, which
// ThreadSanitizer understands.
#define RTE_USE_C11_MEM_MODEL

#include "modules/source.h"

#include <rte_errno.h>

#include <atomic>
#include <string>

#include "internal/registered_class.h"

using bess::Packet;
using bess::PacketBatch;

const Commands Source::cmds;

namespace {
const bess::internal::RegisteredClass<Source> source_class(
    "Source", "source", "sends packets that a program gives it");
}  // namespace

Source::~Source() { FreeRing(); }

CommandResponse Source::Init(const bess::pb::EmptyArg&) {
  static std::atomic<unsigned> number = 0;
  const std::string ring_name = "source" + std::to_string(number++);
  ring_ = rte_ring_create(ring_name.c_str(), kCapacity, SOCKET_ID_ANY,
                          RING_F_SC_DEQ | RING_F_EXACT_SZ);
  if (ring_ == nullptr) {
    return CommandFailure(rte_errno, "cannot make a ring of %u packets: %s",
                          kCapacity, rte_strerror(rte_errno));
  }
  if (RegisterTask(nullptr) == INVALID_TASK_ID) {
    return CommandFailure(ENOMEM, "cannot make a task");
  }
  return CommandSuccess();
}

void Source::DeInit() { FreeRing(); }

void Source::FreeRing() {
  if (ring_ == nullptr) {
    return;
  }
  void* pkt;
  while (rte_ring_dequeue(ring_, &pkt) == 0) {
    Packet::Free(static_cast<Packet*>(pkt));
  }
  rte_ring_free(ring_);
  ring_ = nullptr;
}

bool Source::Push(Packet* pkt) { return rte_ring_enqueue(ring_, pkt) == 0; }

unsigned Source::waiting() const { return rte_ring_count(ring_); }

task_result Source::RunTask(Context* ctx, PacketBatch* batch, void*) {
  const unsigned count =
      rte_ring_dequeue_burst(ring_, reinterpret_cast<void**>(batch->pkts()),
                             PacketBatch::kMaxBurst, nullptr);
  if (count == 0) {
    return {.block = true, .packets = 0, .bits = 0};
  }
  batch->set_cnt(static_cast<int>(count));
  uint64_t bytes = 0;
  for (unsigned i = 0; i < count; i++) {
    bytes += batch->pkts()[i]->total_len();
  }
  RunNextModule(ctx, batch);
  return {.block = false, .packets = count, .bits = bytes * 8};
}
