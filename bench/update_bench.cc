// SPDX-License-Identifier: BSD-3-Clause
//
// An update of a flow table beside the bare cost of its classifier:
// rte_acl_add_rules and rte_acl_build of the same rules in the same order, in
// turns, the fastest of each ("ratio"), and inside the update itself, the
// median of its updates ("within"). Times are processor time of the command
// thread, on which all of it runs, so that others on the machine disturb them
// less.
//
//   change    one flow of the table is replaced by another
//   load      all flows come in one message
#include <benchmark/benchmark.h>

#include <algorithm>
#include <limits>
#include <string>
#include <vector>

#include "bench/flow_sets.h"
#include "bench/measure.h"
#include "bench/updates.h"
#include "graph.h"

namespace {

using bench::UpdateCost;
using bench::Updates;

// Takes the updates of one benchmark, and as many bare builds of their rules.
//
// A build gets memory much faster that one of its kind has just given back: a
// virtual machine hands to its host what is free for two seconds. So the order
// changes from turn to turn, and each comes twice in a row.
class Samples {
 public:
  void take(benchmark::State& state, const google::protobuf::Any& message) {
    Updates& updates = Updates::instance();
    const bool bareFirst = turn_++ % 2 == 1;
    double bare = bareFirst ? updates.bare(rules_) : 0;
    const UpdateCost cost = updates.send(message);
    if (!bareFirst) {
      rules_ = updates.rules();
      bare = updates.bare(rules_);
    }
    state.SetIterationTime(cost.update / 1000);
    update_ = std::min(update_, cost.update);
    bare_ = std::min(bare_, bare);
    within_.push_back(cost.update / cost.library);
  }

  void report(benchmark::State& state, uint32_t flows) {
    const auto middle =
        within_.begin() + static_cast<ptrdiff_t>(within_.size() / 2);
    std::nth_element(within_.begin(), middle, within_.end());
    bench::report(state, update_, bare_, "ms/update");
    state.counters["within"] = *middle;
    state.SetItemsProcessed(state.iterations() * flows);
  }

 private:
  unsigned turn_ = 0;
  Updates::Rules rules_;  // of the last update that came first
  double update_ = std::numeric_limits<double>::max();
  double bare_ = std::numeric_limits<double>::max();
  std::vector<double> within_;
};

void change(benchmark::State& state, const bench::FlowKind& kind) {
  const auto count = static_cast<uint32_t>(state.range(0));
  Updates& updates = Updates::instance();
  updates.send(bench::addsOf(bench::makeFlows(kind, count)));
  const auto others = bench::makeFlows(kind, count, 2);
  Samples samples;
  uint32_t next = 0;
  for (auto _ : state) {
    samples.take(state, bench::addsOf({others[next++ % count]}));
  }
  updates.clear(count);
  samples.report(state, count);
}

void load(benchmark::State& state, const bench::FlowKind& kind) {
  const auto count = static_cast<uint32_t>(state.range(0));
  const auto message = bench::addsOf(bench::makeFlows(kind, count));
  Samples samples;
  for (auto _ : state) {
    samples.take(state, message);
    Updates::instance().clear(count);
  }
  samples.report(state, count);
}

void registerAll() {
  for (const char* name : {"exact", "prefixes", "acl"}) {
    const bench::FlowKind& kind = bench::flowKind(name);
    const auto add = [&](const char* what, auto* run, long flows, int times) {
      benchmark::RegisterBenchmark(
          (std::string(what) + "/" + name).c_str(),
          [&kind, run](benchmark::State& state) { run(state, kind); })
          ->ArgName("flows")
          ->Arg(flows)
          ->Iterations(times)
          ->UseManualTime()
          ->Unit(benchmark::kMillisecond);
    };
    add("change", change, 1000, 15);
    add("change", change, 10000, 7);
    add("load", load, 1000, 15);
    add("load", load, 10000, 7);
    add("load", load, 100000, 5);  // two minutes or less
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  registerAll();
  benchmark::RunSpecifiedBenchmarks();
  bess::DestroyAllModules();
}
