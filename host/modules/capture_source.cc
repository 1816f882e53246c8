// SPDX-License-Identifier: BSD-3-Clause
#include "modules/capture_source.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "internal/registered_class.h"
#include "modules/flow_hash.h"
#include "modules/port_metadata.h"

namespace {

const bess::internal::RegisteredClass<CaptureSource> capture_source_class(
    "CaptureSource", "capture_source", "plays capture files");

// Parsers read headers at fixed positions without asking how long the frame
// is. Behind a short frame they find zeros, not what the buffer last held.
constexpr uint32_t kParsedLen = 128;

}  // namespace

const Commands CaptureSource::cmds = {};

CommandResponse CaptureSource::Init(const bess::pb::CaptureSourceArg& arg) {
  if (arg.inputs().empty()) {
    return CommandFailure(EINVAL, "no inputs");
  }
  shares_ = std::max(arg.shares(), uint32_t{1});
  share_ = arg.share();
  if (share_ >= shares_) {
    return CommandFailure(EINVAL, "share %u: must be below %u", share_,
                          shares_);
  }
  try {
    pool_ = bess::PacketPool::Default();
    for (const auto& input : arg.inputs()) {
      merger_.Add(input.path(), input.port());
      counts_.push_back({input.port(), 0, 0, 0});
    }
  } catch (const std::runtime_error& failure) {
    return CommandFailure(EINVAL, "%s", failure.what());
  }
  burst_.reserve(bess::PacketBatch::kMaxBurst);
  if (RegisterTask(nullptr) == INVALID_TASK_ID) {
    return CommandFailure(ENOMEM, "cannot make a task");
  }
  return CommandSuccess();
}

bool CaptureSource::Mine(const bess::CapturedFrame& frame) const {
  return shares_ == 1 ||
         bess::FlowHash(frame.bytes, frame.len) % shares_ == share_;
}

// The next frame that is ours to emit. All frames are numbered, the others'
// too, so that the sources of one set of inputs agree on the numbers.
const bess::CaptureMerger::Input* CaptureSource::NextFrame() {
  while (const bess::CaptureMerger::Input* input = merger_.Next()) {
    next_order_++;
    if (Mine(input->next)) {
      return input;
    }
  }
  return nullptr;
}

bess::Packet* CaptureSource::MakePacket(const bess::CapturedFrame& frame) {
  const auto segment_len = [](uint32_t left) {
    return static_cast<uint16_t>(
        std::min<uint32_t>(left, bess::Packet::kDataRoom));
  };
  uint16_t len = segment_len(frame.len);
  bess::Packet* pkt = pool_->Alloc(len);
  if (pkt == nullptr) {
    return nullptr;
  }
  char* data = pkt->head_data<char*>();
  memcpy(data, frame.bytes, len);
  if (len < kParsedLen) {
    memset(data + len, 0, kParsedLen - len);
  }
  rte_mbuf* last = pkt->mbuf();
  for (uint32_t at = len; at < frame.len; at += len) {
    len = segment_len(frame.len - at);
    bess::Packet* segment = pool_->Alloc(len);
    if (segment == nullptr) {
      bess::Packet::Free(pkt);
      return nullptr;
    }
    memcpy(segment->head_data(), frame.bytes + at, len);
    last->next = segment->mbuf();
    last = last->next;
    pkt->mbuf()->nb_segs++;
    pkt->mbuf()->pkt_len += len;
  }
  return pkt;
}

task_result CaptureSource::RunTask(Context* ctx, bess::PacketBatch* batch,
                                   void*) {
  bursts_++;
  burst_.clear();
  uint64_t bits = 0;
  while (!batch->full()) {
    if (waiting_ == nullptr && (waiting_ = NextFrame()) == nullptr) {
      break;
    }
    const bess::CapturedFrame& frame = waiting_->next;
    bess::Packet* pkt = MakePacket(frame);
    if (pkt == nullptr) {
      break;
    }
    bess::SetReceivedOn(pkt, waiting_->port);
    burst_.push_back({next_order_ - 1, frame.ns});
    pkt->set_tag(static_cast<uint32_t>(burst_.size()));
    batch->add(pkt);

    PortCounts& counts =
        counts_[static_cast<size_t>(waiting_ - merger_.inputs().data())];
    counts.packets++;
    counts.bytes += frame.len;
    counts.cut += frame.len < frame.wire_len;
    bits += frame.len * 8;
    waiting_ = nullptr;
  }
  uint64_t position = 0;
  for (const auto& input : merger_.inputs()) {
    position += input.reader->position();
  }
  position_.store(position, std::memory_order_relaxed);

  const uint32_t packets = static_cast<uint32_t>(batch->cnt());
  if (packets > 0) {
    RunNextModule(ctx, batch);
  } else if (waiting_ == nullptr) {
    // This run emits nothing, and the one before it is over: every packet has
    // gone all the way. Pairs with done().
    done_.store(true, std::memory_order_release);
  }
  return {.block = packets == 0, .packets = packets, .bits = bits};
}

std::string CaptureSource::GetDesc() const {
  return fmt::format("{} captures", merger_.inputs().size());
}

uint64_t CaptureSource::size() const {
  uint64_t size = 0;
  for (const auto& input : merger_.inputs()) {
    size += input.reader->size();
  }
  return size;
}

std::vector<std::string> CaptureSource::errors() const {
  std::vector<std::string> errors;
  for (const auto& input : merger_.inputs()) {
    if (!input.reader->error().empty()) {
      errors.push_back(input.reader->error());
    }
  }
  return errors;
}
