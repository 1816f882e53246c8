// SPDX-License-Identifier: BSD-3-Clause
#include "switch/replay/build_check.h"

#include <rte_acl.h>
#include <rte_cycles.h>
#include <rte_lcore.h>
#include <rte_malloc.h>
#include <urcu-qsbr.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <map>
#include <random>
#include <stdexcept>
#include <utility>

#include "control.h"
#include "eal.h"
#include "graph.h"
#include "platform/quil_modules/acl_db.h"
#include "plugin.h"
#include "switch/flow/update_batch.h"
#include "switch/replay/module_commands.h"
#include "switch/replay/require.h"
#include "switch/replay/sample_key.h"
#include "utils/acl_build_memory.h"

namespace ofswitch {
namespace {

using Place = std::pair<uint32_t, bool>;  // table, whether IPv6
using FlowsById = std::map<uint32_t, quil::pb::OpenFlowAddFlow>;
using Keys = std::vector<std::vector<uint8_t>>;

constexpr uint32_t kTarget = 6;  // of the module in the ACL database
constexpr uint32_t kBurst = 32;
constexpr size_t kSamples = 4096;  // keys, spread over the flows
constexpr int kPasses = 20;

size_t dpdkBytes() {
  bess::ControlThread::Instance().Run([] { rcu_barrier(); });
  rte_malloc_socket_stats stats = {};
  rte_malloc_get_socket_stats(static_cast<int>(rte_socket_id()), &stats);
  return stats.heap_allocsz_bytes;
}

const rte_acl_ctx* classifierOf(const Place& place) {
  const auto db = Mio::ptrCast<QuilModules::AclDb>(
      Mio::Entity::singletonExists(QuilModules::AclDb::entityType().name));
  const uint32_t slot = 2 * place.first + (place.second ? 1 : 0);
  const QuilModules::AclCtxData* data =
      db->getAclCtxTableByTarget(kTarget)->slots[slot].data;
  return data == nullptr ? nullptr : data->ctx;
}

// The fastest pass over all keys counts: whatever else runs on the machine only
// adds to it.
double cyclesPerPacket(const rte_acl_ctx* classifier, const Keys& keys) {
  uint64_t best = std::numeric_limits<uint64_t>::max();
  for (int pass = 0; pass < kPasses; pass++) {
    const uint64_t start = rte_rdtsc_precise();
    for (size_t at = 0; at + kBurst <= keys.size(); at += kBurst) {
      const uint8_t* burst[kBurst];
      for (size_t i = 0; i < kBurst; i++) burst[i] = keys[at + i].data();
      uint32_t results[kBurst];
      rte_acl_classify(classifier, burst, results, kBurst, 1);
    }
    best = std::min(best, rte_rdtsc_precise() - start);
  }
  return static_cast<double>(best) / static_cast<double>(keys.size());
}

Keys sampleKeys(const FlowsById& flows, bool ipv6) {
  std::mt19937 random(1);
  std::vector<const quil::pb::OpenFlowAddFlow*> list;
  for (const auto& [id, flow] : flows) list.push_back(&flow);
  Keys keys;
  for (size_t i = 0; i < kSamples; i++) {
    keys.push_back(sampleKey(*list[random() % list.size()], ipv6, &random));
  }
  return keys;
}

// The instance, for as long as the check takes.
class Instance {
 public:
  explicit Instance(const BuildCheckOptions& options)
      : path_(options.modulePath) {
    require(bess::InitEal({.memory_mb = options.memoryMb}));
    if (options.buildMb != 0) Dpdk::setAclBuildLimit(options.buildMb << 20);
    makeModule(path_);
  }
  ~Instance() {
    bess::DestroyAllModules();
    bess::UnloadPlugin(path_);
  }
  Instance(const Instance&) = delete;
  Instance& operator=(const Instance&) = delete;

 private:
  const std::string path_;
};

// Sends one update, and notes in `build` how it went.
void measure(const PolicyCommand& command, TableBuild* build) {
  const size_t before = dpdkBytes();
  const auto start = std::chrono::steady_clock::now();
  try {
    applyCommand(command);
    build->failure.clear();
  } catch (const std::runtime_error& error) {
    build->failure = error.what();
  }
  build->milliseconds = std::chrono::duration<double, std::milli>(
                            std::chrono::steady_clock::now() - start)
                            .count();
  build->buildBytes = Dpdk::lastAclBuild().peak;
  // Updates may also shrink a table.
  build->keptBytes += dpdkBytes();
  build->keptBytes -= std::min(build->keptBytes, before);
}

void noteFlows(const TableUpdate& update, FlowsById* flows) {
  for (const auto& add : update.adds()) {
    flows->insert_or_assign(add.flowid(), add);
  }
  for (const auto& erased : update.deletes()) flows->erase(erased.flowid());
}

}  // namespace

std::vector<TableBuild> checkBuilds(const Policy& policy,
                                    const BuildCheckOptions& options) {
  const Instance instance(options);
  std::map<Place, TableBuild> builds;
  std::map<Place, FlowsById> flows;
  for (const PolicyCommand& command : policy.commands) {
    TableUpdate update;
    if (!command.arg.UnpackTo(&update)) continue;
    const Place place(update.tableid(),
                      update.flowtype() == quil::pb::OPENFLOW_TYPE_IPV6);
    TableBuild& build = builds[place];
    build.table = place.first;
    build.ipv6 = place.second;
    noteFlows(update, &flows[place]);
    build.flows = flows[place].size();
    measure(command, &build);
  }
  std::vector<TableBuild> answer;
  for (auto& [place, build] : builds) {
    const rte_acl_ctx* classifier = classifierOf(place);
    if (build.failure.empty() && classifier != nullptr) {
      build.cyclesPerPacket =
          cyclesPerPacket(classifier, sampleKeys(flows[place], place.second));
    }
    answer.push_back(std::move(build));
  }
  return answer;
}

}  // namespace ofswitch
