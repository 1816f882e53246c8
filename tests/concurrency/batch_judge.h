// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "module.h"
#include "packet.h"
#include "pktbatch.h"
#include "tests/concurrency/flow_sets.h"
#include "tests/concurrency/history.h"

namespace openflow_test {

inline constexpr uint32_t kBatch = bess::PacketBatch::kMaxBurst;

// Packet i of a batch: families take turns, and so do the classes within one.
constexpr size_t familyOf(uint32_t index) { return index % kFamilies; }
constexpr size_t classOf(uint32_t index) {
  return index / kFamilies % kClasses;
}
inline constexpr uint32_t kPerFamily = kBatch / kFamilies;

// Judges one worker's batches, one after the other. In each, all packets of a
// family must have obeyed one version of a table's flow set, in full, and one
// that was in effect during the batch; and every packet must have left a copy
// or been counted. Used by the worker's thread; read when that is gone.
class BatchJudge {
 public:
  // `module` is the one under test.
  BatchJudge(int wid, const Module* module, const Histories& histories)
      : wid_(wid), module_(module), histories_(histories) {}

  // Before the module gets a batch / for every copy that comes out of it / when
  // all of them are out.
  void begin();
  void see(uint16_t gate, const bess::Packet& copy);
  void end();

  uint64_t batches() const { return batches_; }
  uint64_t missed(size_t step) const { return missed_[step]; }
  uint64_t freedBatches(size_t step) const { return freedBatches_[step]; }
  uint64_t copies(size_t step, size_t family) const {
    return copies_[step][family];
  }
  // Batches in whose course a flow set was replaced.
  uint64_t overlaps() const { return overlaps_; }
  uint64_t bytes() const { return bytes_; }

  // The first thing that was wrong; empty if nothing was.
  const std::string& error() const { return error_; }

 private:
  struct Seen {
    uint16_t gate;
    uint32_t index;
    std::array<FlowLabel, 2> labels;  // destination and source MAC
    uint16_t srcPort;
    uint16_t dstPort;
  };
  using Versions = std::array<uint32_t, kFamilies>;

  void fail(const std::string& what);
  // Whether the packets of the family obeyed the table, by `version`.
  bool judge(size_t step, size_t family, const Versions* before,
             uint32_t* version);
  void checkCopy(const Seen& copy, size_t step, size_t family, uint32_t version,
                 const Versions* before);

  const int wid_;
  const Module* module_;
  const Histories& histories_;

  bool open_ = false;
  std::array<std::array<size_t, kFamilies>, kSteps> doneBefore_{};
  uint64_t dropsBefore_ = 0;
  std::vector<Seen> seen_;

  uint64_t batches_ = 0;
  uint64_t overlaps_ = 0;
  uint64_t bytes_ = 0;
  std::array<uint64_t, kSteps> missed_{};
  std::array<uint64_t, kSteps> freedBatches_{};
  std::array<std::array<uint64_t, kFamilies>, kSteps> copies_{};
  std::string error_;
};

}  // namespace openflow_test
