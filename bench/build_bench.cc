// SPDX-License-Identifier: BSD-3-Clause
//
// What classifiers of several kinds of flow sets take to build: time, memory,
// and cycles of a lookup of packets that they match, as JSON for
// bench/plot_builds. Each kind grows until a set takes too long or too much.
// Times are processor time, the fastest of a few builds.
#include <rte_acl.h>
#include <rte_cycles.h>
#include <rte_malloc.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

#include "bench/flow_sets.h"
#include "eal.h"
#include "modules/openflow/openflow.h"
#include "switch/replay/sample_key.h"
#include "utils/acl_build_memory.h"

namespace {

constexpr size_t kLimit = size_t{2} << 30;
constexpr double kLongest = 12;  // seconds: larger sets are not tried
constexpr uint32_t kSizes[] = {10,   30,    100,   300,   1000,
                               3000, 10000, 30000, 100000};

double threadTime() {
  timespec now;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) +
         static_cast<double>(now.tv_nsec) / 1e9;
}

size_t heapBytes() {
  rte_malloc_socket_stats stats;
  rte_malloc_get_socket_stats(0, &stats);
  return stats.heap_allocsz_bytes;
}

// A classifier of a set, in the order in which the set has its flows.
class Classifier {
 public:
  explicit Classifier(const std::vector<quil::pb::OpenFlowAddFlow>& flows) {
    rte_acl_param param = {};
    param.name = "build_bench";
    param.socket_id = SOCKET_ID_ANY;
    param.rule_size = sizeof(of_flow_acl_rule);
    param.max_rule_num = static_cast<uint32_t>(flows.size());
    ctx_ = rte_acl_create(&param);
    std::vector<of_flow_acl_rule> rules(flows.size());
    OpenFlow module;
    for (size_t i = 0; i < flows.size(); i++) {
      module.makeAclRule(quil::pb::OPENFLOW_TYPE_IPV4, flows[i], &rules[i]);
      rules[i].data.userdata = static_cast<uint32_t>(i + 1);
    }
    const auto* first = reinterpret_cast<const rte_acl_rule*>(rules.data());
    if (rte_acl_add_rules(ctx_, first, param.max_rule_num) != 0) abort();
  }
  ~Classifier() { rte_acl_free(ctx_); }

  // False when it takes too much memory.
  bool build() {
    rte_acl_config config = {};
    config.num_categories = 1;
    config.num_fields = kNumIpv4Fields;
    std::copy_n(of_flow_defs, kNumIpv4Fields, config.defs);
    const size_t before = heapBytes();
    const double start = threadTime();
    const Dpdk::AclBuildScope scope;
    const int rc = rte_acl_build(ctx_, &config);
    seconds_ = std::min(seconds_, threadTime() - start);
    peak_ = scope.memory().peak;
    if (rc == 0 && size_ == 0) size_ = heapBytes() - before;
    return rc == 0;
  }

  double cyclesPerPacket(const std::vector<quil::pb::OpenFlowAddFlow>& flows) {
    constexpr uint32_t kBurst = 32;
    constexpr size_t kKeys = 4096;
    std::mt19937 random(1);
    std::vector<std::vector<uint8_t>> keys;
    for (size_t i = 0; i < kKeys; i++) {
      keys.push_back(
          ofswitch::sampleKey(flows[random() % flows.size()], false, &random));
    }
    uint64_t best = std::numeric_limits<uint64_t>::max();
    for (int pass = 0; pass < 10; pass++) {
      const uint64_t start = rte_rdtsc_precise();
      for (size_t at = 0; at < kKeys; at += kBurst) {
        const uint8_t* burst[kBurst];
        for (size_t i = 0; i < kBurst; i++) burst[i] = keys[at + i].data();
        uint32_t results[kBurst];
        rte_acl_classify(ctx_, burst, results, kBurst, 1);
      }
      best = std::min(best, rte_rdtsc_precise() - start);
    }
    return static_cast<double>(best) / kKeys;
  }

  double seconds() const { return seconds_; }
  size_t peak() const { return peak_; }
  size_t size() const { return size_; }

 private:
  rte_acl_ctx* ctx_;
  double seconds_ = std::numeric_limits<double>::max();
  size_t peak_ = 0;
  size_t size_ = 0;
};

nlohmann::json measure(const bench::FlowKind& kind) {
  nlohmann::json points = nlohmann::json::array();
  for (const uint32_t count : kSizes) {
    const auto flows = bench::makeFlows(kind, count);
    Classifier classifier(flows);
    bool built = classifier.build();
    for (int i = 0; i < 4 && built && classifier.seconds() < 0.3; i++) {
      built = classifier.build();
    }
    nlohmann::json point = {{"flows", count},
                            {"built", built},
                            {"seconds", classifier.seconds()},
                            {"peakBytes", classifier.peak()}};
    if (built) {
      point["classifierBytes"] = classifier.size();
      point["cyclesPerPacket"] = classifier.cyclesPerPacket(flows);
    }
    points.push_back(point);
    fprintf(stderr, "%-9s %6u flows: %s %9.3f ms, %5zu MB\n", kind.name, count,
            built ? "built in" : "gives up", classifier.seconds() * 1e3,
            classifier.peak() >> 20);
    if (!built || classifier.seconds() > kLongest) break;
  }
  return {{"kind", kind.name},
          {"description", kind.description},
          {"points", points}};
}

}  // namespace

int main() {
  const std::string error = bess::InitEal({.memory_mb = 2048});
  if (!error.empty()) {
    fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  Dpdk::setAclBuildLimit(kLimit);
  nlohmann::json kinds = nlohmann::json::array();
  for (const bench::FlowKind& kind : bench::flowKinds()) {
    kinds.push_back(measure(kind));
  }
  const nlohmann::json report = {{"limitBytes", kLimit}, {"kinds", kinds}};
  printf("%s\n", report.dump(1).c_str());
}
