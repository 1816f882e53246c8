// SPDX-License-Identifier: BSD-3-Clause
//
// What an update takes of DPDK's heap, for whoever sends one and must know
// beforehand: a flow's node that the heap does not give ends the process.
//
//   store       an entry and a node of each add, as long as the flow is there
//   rules       of all flows and all adds, while the update runs
//   classifier  the rules of the flows that are left; what the library makes
//               of them comes on top, and is not known before
//   actions     one of each flow that is left
#pragma once

#include <cstddef>
#include <cstdint>

#include "modules/openflow/flow_table.h"

// Bytes that the heap gives up for a block: the block in whole cache lines, and
// DPDK's head of two in front of it.
constexpr size_t heapBytes(size_t block) {
  constexpr size_t kLine = Dpdk::kRteAlignment;
  constexpr size_t kHead = 2 * kLine;
  return (block + kLine - 1) / kLine * kLine + kHead;
}

struct UpdateMemory {
  size_t store = 0;       // entries and nodes of the adds
  size_t rules = 0;       // one block, while the update runs
  size_t classifier = 0;  // one block, before the library builds
  size_t actions = 0;     // published beside it

  size_t all() const { return store + rules + classifier + actions; }
};

// Of `numAdds` adds to a table and family that has `numFlows` flows, and
// `numLeft` afterwards.
template <typename FLOW_TYPE>
UpdateMemory updateMemory(size_t numFlows, size_t numAdds, size_t numLeft) {
  // The library's own record in front of its copy of the rules, and its name's.
  constexpr size_t kClassifierHead = 8192;
  using Node = typename OpenFlowStore<FLOW_TYPE>::Node;
  UpdateMemory memory;
  memory.store = numAdds * (heapBytes(sizeof(OpenFlowEntry<FLOW_TYPE>)) +
                            heapBytes(sizeof(Node)));
  memory.rules = heapBytes((numFlows + numAdds) * sizeof(FLOW_TYPE));
  if (numLeft > 0) {
    memory.classifier =
        heapBytes(kClassifierHead + numLeft * sizeof(FLOW_TYPE));
    memory.actions = numLeft * heapBytes(sizeof(OfFlowAction));
  }
  return memory;
}
