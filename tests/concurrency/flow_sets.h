// SPDX-License-Identifier: BSD-3-Clause
//
// Flow sets that carry a version. Every flow of a set writes the same version
// into the packets that it matches, so that a packet tells which set it obeyed:
// by the gate on which its copy leaves, by a MAC address, by a UDP port. Three
// tables in a row have a set for each family, and an update replaces a whole
// set by one message.
//
//   table 0:   writes the destination MAC, a copy to a gate, on to table 9
//   table 9:   writes the source MAC,      a copy to a gate, on to table 31
//   table 31:  writes the destination MAC, a copy to a gate
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "openflow.pb.h"
#include "tests/support/bytes.h"
#include "tests/support/random_traffic.h"

namespace openflow_test {

inline constexpr std::array<uint8_t, 3> kChain = {0, 9, 31};
inline constexpr size_t kSteps = kChain.size();
inline constexpr size_t kFamilies = 2;
inline constexpr size_t kClasses = 4;  // of packets in a family: a flow each

// What every flow's MAC says.
struct FlowLabel {
  size_t step;
  size_t family;
  size_t packetClass;
  uint32_t version;

  bool operator==(const FlowLabel&) const = default;
};
Mac encode(const FlowLabel& label);
FlowLabel decode(const uint8_t* mac);

inline constexpr uint16_t kNumGates = kSteps * kFamilies * 4 + 1;
constexpr uint16_t gateOf(size_t step, size_t family, uint32_t version) {
  return static_cast<uint16_t>(1 + (step * kFamilies + family) * 4 +
                               version % 4);
}

// Counters of a flow: packets, and right behind it bytes.
constexpr uint32_t counterOf(size_t step, size_t family, size_t packetClass) {
  return static_cast<uint32_t>(
      2 * ((step * kFamilies + family) * kClasses + packetClass));
}
inline constexpr uint32_t kNumCounters = 2 * kSteps * kFamilies * kClasses;

constexpr uint16_t portOf(size_t packetClass) {
  return static_cast<uint16_t>(1000 + packetClass);
}

// The messages for one table and family, in the order in which they are sent.
class FlowSet {
 public:
  FlowSet(size_t step, size_t family) : step_(step), family_(family) {}

  // Replaces the set by that of `version`: flows are modified, or deleted and
  // added under other identifiers, and the packet classes change places among
  // them.
  quil::pb::OpenFlowUpdateFlowsArg replaceBy(uint32_t version, Random* random);

  // Deletes the set.
  quil::pb::OpenFlowUpdateFlowsArg remove();

  // Flows in the table's store after the last message.
  uint32_t numFlows() const { return numFlows_; }

 private:
  quil::pb::OpenFlowUpdateFlowsArg message() const;
  void removeFrom(uint32_t firstId, quil::pb::OpenFlowUpdateFlowsArg* arg);

  const size_t step_;
  const size_t family_;
  uint32_t firstId_ = 0;  // of the set's flows; 0: there are none
  uint32_t numFlows_ = 0;
};

}  // namespace openflow_test
