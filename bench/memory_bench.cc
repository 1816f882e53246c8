// SPDX-License-Identifier: BSD-3-Clause
//
// Bytes that a flow takes of memory, in a table of so many flows that came in
// one message.
//
// Parts, from the sizes of their records:
//
//   flow        the stored flow with its hash node
//   rule        in the classifier, and once more while an update runs
//   action      the published action with its userdata record
//
// All that is in use of DPDK's heap and of the C library's, over what was in
// use before the flows came:
//
//   kept        when the update is over: flows, hash table, classifier,
//               userdata, and what DPDK's heap puts in front of its blocks
//   load_peak   at most while all flows are loaded
//   peak        at most while one of them is replaced by another
//   build_heap  the part of `peak` in which the library builds
//
// Both peaks have everything: what is kept, the message as it came and as it is
// read, the rules' copies, and beside the classifier and userdata in force the
// next ones. That is most at the end of rte_acl_build: until there nothing is
// freed, the finished classifier lies in DPDK's heap, and the build gives back
// its own memory only after it. The last is not on any heap and is counted as
// it is asked for, in blocks of 8 MiB, also where nothing was written to it:
// few flows have the most of it each.
//
// Not counted are what the heaps hold free, the rounding of builds to pages,
// and 8 bytes of the command thread's stack for an added flow.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <rte_malloc.h>

#include <chrono>
#include <string>
#include <thread>

#include "bench/flow_sets.h"
#include "bench/measure.h"
#include "bench/updates.h"
#include "graph.h"
#include "utils/acl_build_memory.h"

namespace {

using bench::Updates;
using quil::pb::OpenFlowType;

// In use, of both heaps. What threads keep ready of the blocks they have freed
// counts as well: some KiB in all.
size_t heapBytes() {
  rte_malloc_socket_stats dpdk;
  rte_malloc_get_socket_stats(0, &dpdk);
  const struct mallinfo2 libc = mallinfo2();
  return dpdk.heap_allocsz_bytes + libc.uordblks + libc.hblkhd;
}

// The same once nothing changes any more: hash tables grow and shrink on a
// thread of their own.
size_t settledHeapBytes() {
  constexpr int kEnough = 5;
  size_t bytes = heapBytes();
  for (int same = 0; same < kEnough; same++) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const size_t now = heapBytes();
    if (now != bytes) same = -1;
    bytes = now;
  }
  return bytes;
}

struct Peak {
  double ms = 0;
  size_t bytes = 0;
  size_t build = 0;  // of them
};

Peak peakOf(const google::protobuf::Any& message) {
  Peak peak;
  Updates::setAfterBuild([&] { peak.bytes = heapBytes(); });
  peak.ms = Updates::instance().send(message).update;
  Updates::setAfterBuild({});
  peak.build = Dpdk::lastAclBuild().peak;
  peak.bytes += peak.build;
  return peak;
}

template <typename FLOW_TYPE>
void reportParts(benchmark::State& state) {
  state.counters["flow"] = sizeof(OpenFlowEntry<FLOW_TYPE>) +
                           sizeof(typename OpenFlowStore<FLOW_TYPE>::Node);
  state.counters["rule"] = sizeof(FLOW_TYPE);
  state.counters["action"] =
      sizeof(OfFlowAction) + sizeof(QuilModules::KoAclUserdata);
}

void memory(benchmark::State& state, const bench::FlowKind& kind,
            OpenFlowType type) {
  const auto count = static_cast<uint32_t>(state.range(0));
  Updates& updates = Updates::instance();
  if (!Dpdk::aclBuildsAreLimited()) bench::die("builds are not counted");
  // What is made only once is there before.
  updates.send(bench::addsOf(bench::makeFlows(kind, 1), type));
  updates.clear(1, type);

  const size_t before = settledHeapBytes();
  Peak load;
  for (auto _ : state) {
    const auto message = bench::addsOf(bench::makeFlows(kind, count), type);
    load = peakOf(message);  // the flows that it was made of are gone
    state.SetIterationTime(load.ms / 1000);
  }
  const size_t kept = settledHeapBytes();
  const Peak change = peakOf(bench::addsOf(bench::makeFlows(kind, 1, 2), type));
  updates.clear(count, type);

  const auto perFlow = [&](size_t bytes) {
    return static_cast<double>(bytes) / count;
  };
  if (type == quil::pb::OPENFLOW_TYPE_IPV6) {
    reportParts<of_flow_acl_rule_ipv6>(state);
  } else {
    reportParts<of_flow_acl_rule>(state);
  }
  state.counters["kept"] = perFlow(kept - before);
  state.counters["load_peak"] = perFlow(load.bytes - before);
  state.counters["peak"] = perFlow(change.bytes - before);
  state.counters["build_heap"] = perFlow(change.build);
}

void add(const bench::FlowKind& kind, OpenFlowType type) {
  benchmark::RegisterBenchmark(
      (std::string("memory/") + kind.name).c_str(),
      [&kind, type](benchmark::State& state) { memory(state, kind, type); })
      ->ArgName("flows")
      ->Arg(1000)
      ->Arg(10000)
      ->Iterations(1)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  for (const char* name : {"exact", "prefixes", "acl"}) {
    add(bench::flowKind(name), quil::pb::OPENFLOW_TYPE_IPV4);
  }
  add(bench::ipv6Prefixes(), quil::pb::OPENFLOW_TYPE_IPV6);
  benchmark::RunSpecifiedBenchmarks();
  bess::DestroyAllModules();
}
