// SPDX-License-Identifier: BSD-3-Clause
//
// A module class of its own: frames of up to a limit leave by gate 0, longer
// ones by gate 1.
#include <google/protobuf/wrappers.pb.h>

#include <array>
#include <atomic>
#include <string>

#include "module.h"

namespace {

using google::protobuf::UInt32Value;
using google::protobuf::UInt64Value;

class LengthSplit final : public Module {
 public:
  static constexpr gate_idx_t kNumIGates = 1;
  static constexpr gate_idx_t kNumOGates = 2;

  LengthSplit() { max_allowed_workers_ = Worker::kMaxWorkers; }

  CommandResponse Init(const UInt32Value& limit) { return SetLimit(limit); }

  CommandResponse SetLimit(const UInt32Value& limit) {
    if (limit.value() < 60) {
      return CommandFailure(EINVAL, "limit %u: must be 60 or more",
                            limit.value());
    }
    limit_.store(limit.value(), std::memory_order_relaxed);
    return CommandSuccess();
  }

  // How many frames were longer.
  CommandResponse GetLonger(const bess::pb::EmptyArg&) {
    UInt64Value reply;
    for (const Count& count : longer_) {
      reply.set_value(reply.value() +
                      count.frames.load(std::memory_order_relaxed));
    }
    return CommandSuccess(reply);
  }

  void ProcessBatch(Context* ctx, bess::PacketBatch* batch) override {
    const int limit = limit_.load(std::memory_order_relaxed);
    uint64_t longer = 0;
    for (int i = 0; i < batch->cnt(); i++) {
      bess::Packet* pkt = batch->pkts()[i];
      const bool is_longer = pkt->total_len() > limit;
      longer += is_longer;
      EmitPacket(ctx, pkt, is_longer ? 1 : 0);
    }
    // This worker alone writes it.
    std::atomic<uint64_t>& count = longer_[ctx->wid].frames;
    count.store(count.load(std::memory_order_relaxed) + longer,
                std::memory_order_relaxed);
  }

  std::string GetDesc() const override {
    return "up to " + std::to_string(limit_) + " bytes";
  }

 private:
  // A cache line each, so that workers do not take it from each other.
  struct alignas(64) Count {
    std::atomic<uint64_t> frames = 0;
  };

  std::atomic<int> limit_ = 0;
  std::array<Count, Worker::kMaxWorkers> longer_;
};

// Registers the class when the library is loaded, and takes it back when it is
// unloaded.
struct Registration {
  Registration() {
    ModuleBuilder::RegisterModuleClass(
        [] { return new LengthSplit(); }, "LengthSplit", "length_split",
        "sends longer frames another way", LengthSplit::kNumIGates,
        LengthSplit::kNumOGates,
        {{"setLimit", "UInt32Value", MODULE_CMD_FUNC(&LengthSplit::SetLimit),
          Command::THREAD_SAFE},
         {"getLonger", "EmptyArg", MODULE_CMD_FUNC(&LengthSplit::GetLonger),
          Command::THREAD_SAFE}},
        MODULE_INIT_FUNC(&LengthSplit::Init));
  }
  ~Registration() { ModuleBuilder::DeregisterModuleClass("LengthSplit"); }
} registration;

}  // namespace
