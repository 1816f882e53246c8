// SPDX-License-Identifier: BSD-3-Clause
//
// Random flows and frames for comparing the module with its twin. Both draw
// from the same few addresses, ports and tags, so that rules hit, overlap and
// chain. A seed names a run.
#pragma once

#include <cstdint>
#include <random>
#include <vector>

#include "tests/support/flow.h"
#include "tests/support/module_harness.h"
#include "tests/support/packet.h"

namespace openflow_test {

// Draws that do not depend on the standard library's distributions.
class Random {
 public:
  explicit Random(uint64_t seed) : engine_(seed) {}

  uint32_t below(uint32_t bound) {
    return static_cast<uint32_t>(engine_() % bound);
  }
  bool oneIn(uint32_t n) { return below(n) == 0; }
  uint64_t bits() { return engine_(); }

  template <class Container>
  const auto& pick(const Container& from) {
    return from[below(static_cast<uint32_t>(std::size(from)))];
  }

 private:
  std::mt19937_64 engine_;
};

struct RandomFlowOptions {
  uint32_t tableId = 0;
  Family family = Family::kIpv4;
  bool gotoTables = true;  // sometimes on to a table that is not a later one
  std::vector<uint32_t> gates = {0, 1, 2, 3, 4, 5, 6, 7, 9, 8191, 65535};
  uint32_t numFlowCounters = 64;
};

Flow randomFlow(Random* random, uint32_t flowId, uint32_t priority,
                const RandomFlowOptions& options);

// At most `maxFlows` flows with distinct priorities, one of them sometimes 0.
quil::pb::OpenFlowUpdateFlowsArg randomUpdate(Random* random, uint32_t maxFlows,
                                              const RandomFlowOptions& options);

struct RandomPacketOptions {
  // Frames end anywhere, and lie anywhere in their buffers. Otherwise every
  // header that the module could read lies within the frame.
  bool truncate = false;
  size_t minLength = 0;
  bool segments = false;  // spread the payload over several buffers
  uint32_t startTables = kFlowTables;
};

InputPacket randomPacket(Random* random, const RandomPacketOptions& options);

std::vector<InputPacket> randomBatch(Random* random,
                                     const RandomPacketOptions& options);

}  // namespace openflow_test
