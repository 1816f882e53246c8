// SPDX-License-Identifier: BSD-3-Clause
//
// An update of a flow table beside the bare cost of its classifier:
// rte_acl_add_rules and rte_acl_build of the same rules in the same order, in
// turns, the fastest of each ("ratio"), and inside the update itself, the
// median of its updates ("within"). Times are processor time of the command
// thread, on which all of it runs, so that others on the machine disturb them
// less. Also what flows take of memory.
//
//   change    one flow of the table is replaced by another
//   load      all flows come in one message
//   memory    bytes a flow: of a stored flow with its hash node, of a rule (in
//             the classifier, and once more while an update runs), of a
//             published action; all that DPDK's heap keeps, and has at the peak
//             of an update; the ordinary heap that the build takes beside it
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <rte_acl.h>
#include <rte_malloc.h>
#include <urcu-qsbr.h>

#include <algorithm>
#include <ctime>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "bench/flow_sets.h"
#include "bench/measure.h"
#include "control.h"
#include "graph.h"
#include "modules/openflow/openflow.h"
#include "tests/support/openflow_peer.h"
#include "utils/acl_build_memory.h"

namespace {

using Rules = std::vector<of_flow_acl_rule>;

// Processor time of this thread in milliseconds.
double threadTime() {
  timespec now;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e3 +
         static_cast<double>(now.tv_nsec) / 1e6;
}

size_t heapBytes() {
  rte_malloc_socket_stats stats;
  rte_malloc_get_socket_stats(0, &stats);
  return stats.heap_allocsz_bytes;
}

// DPDK's heap at the end of the last build, when an update has the most of it;
// taken only when asked for, for the walk over the heap takes time.
bool lookAtHeap = false;
size_t heapInBuild = 0;

// What the library's two functions took since it was set to zero.
double inLibrary = 0;

}  // namespace

// The module finds these before the library's.
extern "C" int rte_acl_add_rules(rte_acl_ctx* ctx, const rte_acl_rule* rules,
                                 uint32_t count) {
  static const auto addRules = reinterpret_cast<decltype(&rte_acl_add_rules)>(
      dlsym(RTLD_NEXT, "rte_acl_add_rules"));
  const double start = threadTime();
  const int rc = addRules(ctx, rules, count);
  inLibrary += threadTime() - start;
  return rc;
}

extern "C" int rte_acl_build(rte_acl_ctx* ctx, const rte_acl_config* config) {
  static const auto build = reinterpret_cast<decltype(&rte_acl_build)>(
      dlsym(RTLD_NEXT, "rte_acl_build"));
  const double start = threadTime();
  const int rc = build(ctx, config);
  inLibrary += threadTime() - start;
  if (lookAtHeap) heapInBuild = heapBytes();
  return rc;
}

namespace {

// Of one update, in milliseconds: all of it, and what of it the library took.
struct Cost {
  double update = 0;
  double library = 0;
};

// A module whose table 0 is bound.
class Updates {
 public:
  static Updates& instance() {
    static auto* updates = new Updates;
    return *updates;
  }

  // Runs the command.
  Cost send(const quil::pb::OpenFlowUpdateFlowsArg& arg) {
    google::protobuf::Any any;
    any.PackFrom(arg);
    Cost cost;
    onCommandThread([&] {
      inLibrary = 0;
      const double start = threadTime();
      check(bess::RunModuleCommand(module_->name(), "updateFlows", any));
      cost = {threadTime() - start, inLibrary};
      rcu_barrier();
    });
    return cost;
  }

  void clear(uint32_t flows) {
    quil::pb::OpenFlowUpdateFlowsArg arg;
    for (uint32_t id = 1; id <= flows; id++) arg.add_deletes()->set_flowid(id);
    send(arg);
  }

  // The stored rules as a build gets them.
  Rules rules() {
    Rules rules;
    onCommandThread([&] {
      const auto* store = OpenFlowPeer::table(*module_, 0).ipv4.flows;
      cds_lfht_iter iter;
      for (auto* node = store->first(&iter); node != nullptr;
           node = store->next(&iter)) {
        rules.push_back(node->value->rule);
        rules.back().data.userdata = static_cast<uint32_t>(rules.size());
      }
    });
    return rules;
  }

  double bare(const Rules& rules) {
    double time = 0;
    onCommandThread([&] {
      rte_acl_param param = {};
      param.name = "bare";
      param.socket_id = SOCKET_ID_ANY;
      param.rule_size = sizeof(of_flow_acl_rule);
      param.max_rule_num = static_cast<uint32_t>(rules.size());
      rte_acl_ctx* ctx = rte_acl_create(&param);
      const auto* first = reinterpret_cast<const rte_acl_rule*>(rules.data());
      const double start = threadTime();
      const bool built =
          rte_acl_add_rules(ctx, first, param.max_rule_num) == 0 &&
          rte_acl_build(ctx, &OpenFlowPeer::aclConfig(*module_)) == 0;
      time = threadTime() - start;
      if (!built) bench::die("the bare build fails");
      rte_acl_free(ctx);
    });
    return time;
  }

 private:
  Updates() {
    bench::startEal(2048);
    const bess::CreateResult made = bess::CreateModule("OpenFlow");
    check(made.response);
    module_ = static_cast<OpenFlow*>(made.module);
    quil::pb::OpenFlowAclArg arg;
    arg.set_ipv6aclid(1);
    google::protobuf::Any any;
    any.PackFrom(arg);
    check(bess::RunModuleCommand(module_->name(), "setAclIds", any));
  }

  static void onCommandThread(const std::function<void()>& work) {
    bess::ControlThread::Instance().Run(work);
  }

  static void check(const CommandResponse& response) {
    if (response.error().code() != 0)
      bench::die(response.error().errmsg().c_str());
  }

  OpenFlow* module_;
};

quil::pb::OpenFlowUpdateFlowsArg addsOf(
    const std::vector<quil::pb::OpenFlowAddFlow>& flows) {
  quil::pb::OpenFlowUpdateFlowsArg arg;
  for (const auto& flow : flows) *arg.add_adds() = flow;
  return arg;
}

// Gathers the updates of one benchmark, each followed by a bare build.
class Samples {
 public:
  void add(const Cost& cost, double bare) {
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
  double update_ = std::numeric_limits<double>::max();
  double bare_ = std::numeric_limits<double>::max();
  std::vector<double> within_;
};

void change(benchmark::State& state, const bench::FlowKind& kind) {
  const auto count = static_cast<uint32_t>(state.range(0));
  Updates& updates = Updates::instance();
  updates.send(addsOf(bench::makeFlows(kind, count)));
  const auto others = bench::makeFlows(kind, count, 2);
  Samples samples;
  uint32_t next = 0;
  for (auto _ : state) {
    const Cost cost = updates.send(addsOf({others[next++ % count]}));
    samples.add(cost, updates.bare(updates.rules()));
    state.SetIterationTime(cost.update / 1000);
  }
  updates.clear(count);
  samples.report(state, count);
}

void load(benchmark::State& state, const bench::FlowKind& kind) {
  const auto count = static_cast<uint32_t>(state.range(0));
  Updates& updates = Updates::instance();
  const auto message = addsOf(bench::makeFlows(kind, count));
  Samples samples;
  for (auto _ : state) {
    const Cost cost = updates.send(message);
    samples.add(cost, updates.bare(updates.rules()));
    state.SetIterationTime(cost.update / 1000);
    updates.clear(count);
  }
  samples.report(state, count);
}

// Bytes a flow: what stays, and what an update of one flow has at its peak.
void memory(benchmark::State& state, const bench::FlowKind& kind) {
  const auto count = static_cast<uint32_t>(state.range(0));
  Updates& updates = Updates::instance();
  const size_t before = heapBytes();
  for (auto _ : state) {
    const Cost cost = updates.send(addsOf(bench::makeFlows(kind, count)));
    state.SetIterationTime(cost.update / 1000);
  }
  const auto perFlow = [&](size_t bytes) {
    return static_cast<double>(bytes) / count;
  };
  const size_t kept = heapBytes() - before;
  lookAtHeap = true;
  updates.send(addsOf(bench::makeFlows(kind, 1, 2)));
  lookAtHeap = false;
  using Node = OpenFlowStore<of_flow_acl_rule>::Node;
  state.counters["flow"] =
      sizeof(OpenFlowEntry<of_flow_acl_rule>) + sizeof(Node);
  state.counters["rule"] = sizeof(of_flow_acl_rule);
  state.counters["action"] =
      sizeof(OfFlowAction) + sizeof(QuilModules::KoAclUserdata);
  state.counters["kept"] = perFlow(kept);
  state.counters["peak"] = perFlow(heapInBuild - before);
  state.counters["build_heap"] = perFlow(Dpdk::lastAclBuild().peak);
  updates.clear(count);
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
    add("load", load, 100000, 2);
    add("memory", memory, 1000, 1);
    add("memory", memory, 10000, 1);
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  registerAll();
  benchmark::RunSpecifiedBenchmarks();
  bess::DestroyAllModules();
}
