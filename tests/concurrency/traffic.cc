// SPDX-License-Identifier: BSD-3-Clause
#include "tests/concurrency/traffic.h"

#include <cstring>

#include "internal/registered_class.h"
#include "tests/support/frame.h"

namespace openflow_test {

const Commands BatchSource::cmds;
const Commands BatchSink::cmds;

namespace {

const bess::internal::RegisteredClass<BatchSource> source_class(
    "BatchSource", "batch_source", "sends full batches without end");
const bess::internal::RegisteredClass<BatchSink> sink_class(
    "BatchSink", "batch_sink", "shows what enters it to a judge");

// Packet `index` of a batch. Its payload says which one it is.
Bytes frameOf(uint32_t index) {
  Frame frame = Frame::eth();
  if (familyOf(index) == 0) {
    frame.ipv4(ip4("10.0.0.1"), ip4("10.0.0.2"));
  } else {
    frame.ipv6(ip6("2001:db8::1"), ip6("2001:db8::2"));
  }
  return frame.udp(7, portOf(classOf(index)))
      .payload(Bytes{static_cast<uint8_t>(index)})
      .bytes();
}

}  // namespace

CommandResponse BatchSource::Init(const bess::pb::EmptyArg&) {
  for (uint32_t i = 0; i < kBatch; i++) frames_.push_back(frameOf(i));
  return RegisterTask(nullptr) == INVALID_TASK_ID
             ? CommandFailure(ENOMEM, "cannot make a task")
             : CommandSuccess();
}

task_result BatchSource::RunTask(Context* ctx, bess::PacketBatch* batch,
                                 void*) {
  judge_->end();  // of the run before: all of it has come out
  for (const Bytes& frame : frames_) {
    bess::Packet* packet = pool_->Alloc(static_cast<uint16_t>(frame.size()));
    if (packet == nullptr) break;  // the judge misses the rest
    std::memcpy(packet->head_data<uint8_t*>(), frame.data(), frame.size());
    std::memset(packet->metadata<uint8_t*>(), 0, bess::Packet::kMetadataSize);
    batch->add(packet);
  }
  judge_->begin();
  RunNextModule(ctx, batch);
  return {.block = false, .packets = kBatch, .bits = 0};
}

void BatchSink::ProcessBatch(Context* ctx, bess::PacketBatch* batch) {
  BatchJudge* judge = judges_[static_cast<size_t>(ctx->wid)];
  for (int i = 0; i < batch->cnt(); i++) {
    judge->see(ctx->current_igate, *batch->pkts()[i]);
  }
  bess::Packet::Free(batch);
}

}  // namespace openflow_test
