// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <array>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "module.h"

// Keeps what enters it and frees the packets. Class "Sink", for tests: unlike
// other modules it locks and allocates.
class Sink final : public Module {
 public:
  static constexpr gate_idx_t kNumIGates = MAX_GATES;
  static constexpr gate_idx_t kNumOGates = 0;

  struct Captured {
    uint64_t order;  // counts up over all sinks of the process
    gate_idx_t igate;
    int wid;
    uint32_t tag;
    uint16_t port;
    int segments;
    std::string bytes;
    std::array<uint8_t, bess::Packet::kMetadataSize> metadata;
  };

  static const Commands cmds;

  Sink();

  void ProcessBatch(Context* ctx, bess::PacketBatch* batch) override;

  // What has entered since the last call, in order. Any thread.
  std::vector<Captured> Take();

  // The size of each batch that has entered since the last Take.
  std::vector<int> batches() const;

  size_t count() const;

 private:
  mutable std::mutex mutex_;
  std::vector<Captured> captured_;
  std::vector<int> batches_;
};
