// SPDX-License-Identifier: BSD-3-Clause
//
// Flows and the frames that match them, the same at every run, and the bare
// parts of what the module does with such frames.
#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <vector>

#include "bench/bench_rig.h"
#include "modules/openflow/datapath/build_key.h"

namespace bench {

// A benchmark's first argument: which families a table has flows of.
enum Families { kIpv4Only = 0, kIpv6Only = 1, kBoth = 2 };

inline bool hasIpv4(int families) { return families != kIpv6Only; }
inline bool hasIpv6(int families) { return families != kIpv4Only; }

// Ten frames a flow, in an order that a cache of the last flows gains nothing
// from. Every frame matches a flow; with both families, in turns.
std::vector<FrameBytes> matchingFrames(int families, uint32_t flows);

// Binds `table` and gives it `flows` flows of each family; `change`, if any, is
// applied to each before.
void loadFlows(
    Rig* rig, uint32_t table, int families, uint32_t flows,
    const std::function<void(quil::pb::OpenFlowAddFlow*)>& change = {});

// The parts of a batch's work, as bare calls.
class BareParts {
 public:
  // Of packets against the classifiers that `table` publishes.
  BareParts(int families, uint32_t table);

  // Makes the keys ready for the packets of a batch.
  void prepare(const bess::PacketBatch& batch);

  // The key bytes of every packet, copied.
  void copyKeys() {
    for (int i = 0; i < kBurst; i++) {
      if (hasIpv4(families_)) copied4_[i] = keys4_[i];
      if (hasIpv6(families_)) copied6_[i] = keys6_[i];
    }
    benchmark::ClobberMemory();
  }

  // One bare classification of `count` packets for each family.
  void classify(uint32_t count = kBurst) {
    if (hasIpv4(families_)) {
      rte_acl_classify(acl4_, pointers4_, results_, count, 1);
    }
    if (hasIpv6(families_)) {
      rte_acl_classify(acl6_, pointers6_, results_, count, 1);
    }
  }

  // For each packet, a buffer from the pool, the frame's bytes copied to it,
  // and a buffer given back. The least that this can be: buffers are not made
  // packets, but for length and offset, and are given back all at once.
  static void copyAndFree(const bess::PacketBatch& batch);

  // The same in the calls that DPDK has for packets, one after the other:
  // rte_pktmbuf_alloc, rte_pktmbuf_append, rte_memcpy, rte_pktmbuf_free.
  static void copyAndFreePackets(const bess::PacketBatch& batch);

 private:
  int families_;
  const rte_acl_ctx* acl4_;
  const rte_acl_ctx* acl6_;
  OfIpv4Key keys4_[kBurst], copied4_[kBurst];
  OfIpv6Key keys6_[kBurst], copied6_[kBurst];
  const uint8_t* pointers4_[kBurst];
  const uint8_t* pointers6_[kBurst];
  uint32_t results_[kBurst];
};

}  // namespace bench
