// SPDX-License-Identifier: BSD-3-Clause
#include "bench/paced_source.h"

#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "graph.h"

namespace bench {
namespace {

// In the payload behind Ethernet, IPv4 and UDP, which travels with copies.
constexpr uint16_t kStampOffset = 14 + 20 + 8;

// More than a measurement has: growing would take time.
constexpr size_t kMostSamples = size_t{1} << 20;

template <typename Class>
Class* make(const std::string& className, const std::string& name, int igates,
            int ogates) {
  static const bool registered = ModuleBuilder::RegisterModuleClass(
      [] { return new Class(); }, className, className, "for benchmarks",
      static_cast<gate_idx_t>(igates), static_cast<gate_idx_t>(ogates), {},
      MODULE_INIT_FUNC(&Class::Init));
  const bess::CreateResult made = bess::CreateModule(className, name);
  if (!registered || made.module == nullptr) die("a module cannot be made");
  return static_cast<Class*>(made.module);
}

}  // namespace

CommandResponse PacedSource::Init(const bess::pb::EmptyArg&) {
  RegisterTask(nullptr);
  return CommandSuccess();
}

void PacedSource::setFrames(bess::PacketPool* pool,
                            std::vector<FrameBytes> frames) {
  pool_ = pool;
  frames_ = std::move(frames);
  nextFrame_ = 0;
}

void PacedSource::setGap(uint64_t gap) {
  gap_ = gap;
  due_ = 0;
}

uint64_t PacedSource::packetsDue() {
  if (gap_ == 0) return kBurst;
  const uint64_t now = rte_rdtsc();
  if (due_ == 0) due_ = now;
  return now < due_ ? 0 : std::min<uint64_t>((now - due_) / gap_ + 1, kBurst);
}

task_result PacedSource::RunTask(Context* ctx, bess::PacketBatch* batch,
                                 void*) {
  if (goFirst_) [[unlikely]] {
    goFirst_ = false;
    const sched_param lowest = {.sched_priority = 1};
    pthread_setschedparam(pthread_self(), SCHED_FIFO, &lowest);
  }
  const uint64_t count = packetsDue();
  if (count == 0 ||
      !pool_->AllocBulk(batch->pkts(), count, sizeof(FrameBytes))) {
    return {.block = true, .packets = 0, .bits = 0};
  }
  batch->set_cnt(static_cast<int>(count));
  for (uint64_t i = 0; i < count; i++) {
    auto* frame = batch->pkts()[i]->head_data<uint8_t*>();
    std::memcpy(frame, frames_[nextFrame_].data(), sizeof(FrameBytes));
    std::memcpy(frame + kStampOffset, &due_, sizeof(due_));
    due_ += gap_;
    nextFrame_ = nextFrame_ + 1 == frames_.size() ? 0 : nextFrame_ + 1;
  }
  packets_.store(packets_.load(std::memory_order_relaxed) + count,
                 std::memory_order_relaxed);
  RunNextModule(ctx, batch);
  return {.block = false,
          .packets = static_cast<uint32_t>(count),
          .bits = count * sizeof(FrameBytes) * 8};
}

void TimingSink::ProcessBatch(Context*, bess::PacketBatch* batch) {
  const uint64_t now = rte_rdtsc();
  for (int i = 0; i < batch->cnt(); i++) {
    uint64_t due;
    std::memcpy(&due, batch->pkts()[i]->head_data<const uint8_t*>(kStampOffset),
                sizeof(due));
    if (cycles_.size() < cycles_.capacity()) cycles_.push_back(now - due);
  }
  bess::Packet::Free(batch);
}

std::vector<uint64_t> TimingSink::take() {
  std::vector<uint64_t> taken = std::move(cycles_);
  cycles_.clear();
  cycles_.resize(kMostSamples);  // touched, so that keeping one faults no page
  cycles_.clear();
  return taken;
}

PacedSource* makeSource(const std::string& name) {
  return make<PacedSource>("PacedSource", name, 0, 1);
}

TimingSink* makeTimingSink(const std::string& name) {
  TimingSink* sink = make<TimingSink>("TimingSink", name, 2, 0);
  sink->take();
  return sink;
}

}  // namespace bench
