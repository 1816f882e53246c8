// SPDX-License-Identifier: BSD-3-Clause
#include "switch/replay/update_room.h"

#include <fmt/format.h>
#include <rte_lcore.h>
#include <rte_malloc.h>
#include <urcu-qsbr.h>

#include <algorithm>
#include <memory>

#include "modules/openflow/tables/update_memory.h"

namespace ofswitch {
namespace {

// What adds leave alone. Others take from the heap, too: ports and captures.
constexpr size_t kReserve = size_t{1} << 20;

// To see whether a block can be had; it is never written to.
struct RteFree {
  void operator()(void* block) const { rte_free(block); }
};
using Trial = std::unique_ptr<void, RteFree>;

Trial tryBlock(size_t heapBytes) {
  return Trial(rte_malloc("room", heapBytes, Dpdk::kRteAlignment));
}

// Of all sockets: the module takes from whichever has something.
rte_malloc_socket_stats heap() {
  rte_malloc_socket_stats all = {};
  for (unsigned i = 0; i < rte_socket_count(); i++) {
    rte_malloc_socket_stats one = {};
    rte_malloc_get_socket_stats(rte_socket_id_by_idx(i), &one);
    all.heap_freesz_bytes += one.heap_freesz_bytes;
    all.greatest_free_size =
        std::max(all.greatest_free_size, one.greatest_free_size);
  }
  return all;
}

bool fits(const UpdateMemory& memory, size_t reserve) {
  return tryBlock(memory.all() + reserve) != nullptr;
}

// Of a build that does not fit in one piece, and therefore has several.
bool mayFit(const UpdateMemory& memory) {
  const Trial rules = tryBlock(memory.rules);
  const Trial classifier = tryBlock(memory.classifier);
  return rules != nullptr && classifier != nullptr &&
         heap().heap_freesz_bytes >= memory.actions;
}

}  // namespace

std::string missingRoom(const TableUpdate& update,
                        const quil::pb::OpenFlowGetStatsRespArg& stats,
                        Sender sender, const MemorySettings& settings) {
  const bool ipv6 = update.flowtype() == quil::pb::OPENFLOW_TYPE_IPV6;
  const size_t flows = ipv6 ? stats.numipv6flows() : stats.numflows();
  const auto adds = static_cast<size_t>(update.adds_size());
  const size_t kept =
      flows - std::min(flows, static_cast<size_t>(update.deletes_size()));
  // An add may take the place of a flow: what undoes has the benefit of the
  // doubt.
  const size_t left =
      sender == Sender::kUndo ? std::max(kept, adds) : kept + adds;
  const UpdateMemory memory =
      ipv6 ? updateMemory<of_flow_acl_rule_ipv6>(flows, adds, left)
           : updateMemory<of_flow_acl_rule>(flows, adds, left);
  const size_t reserve = adds > 0 && sender == Sender::kOperator ? kReserve : 0;
  if (fits(memory, reserve)) return "";
  // What earlier updates have retired may be on its way back.
  rcu_barrier();
  if (fits(memory, reserve) || (adds == 0 && mayFit(memory))) return "";

  constexpr size_t kMb = size_t{1} << 20;
  const size_t wanted = (memory.all() + reserve + kMb - 1) / kMb;
  const size_t free = heap().greatest_free_size / kMb;
  return fmt::format(
      "there is no room to {}: that takes {} MB of DPDK's memory in one piece, "
      "and {} MB are free; raise {} by {} or more",
      adds > 0 ? fmt::format("add {} flows to {}", adds, flows)
               : fmt::format("build a classifier of {} flows", left),
      wanted, free, settings.memory, wanted - std::min(wanted - 1, free));
}

}  // namespace ofswitch
