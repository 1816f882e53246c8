// SPDX-License-Identifier: BSD-3-Clause
#include "switch/trace/near_misses.h"

#include <algorithm>
#include <tuple>

#include "switch/trace/key_fields.h"

namespace ofswitch {
namespace {

bool isNearer(const NearMisses::Miss& a, const NearMisses::Miss& b) {
  const auto rank = [](const NearMisses::Miss& miss) {
    return std::tuple(miss.differences, 0u - miss.flow->rule.priority,
                      miss.order);
  };
  return rank(a) < rank(b);
}

}  // namespace

void NearMisses::consider(const std::shared_ptr<const InstalledFlow>& flow,
                          uint64_t order) {
  if (flow->isTableMiss) return;
  const Miss miss{flow, countDifferences(flow->flow.match, key_), order};
  const auto place = std::ranges::upper_bound(nearest_, miss, isNearer);
  if (place == nearest_.end() && nearest_.size() == kKept) return;
  nearest_.insert(place, miss);
  if (nearest_.size() > kKept) nearest_.pop_back();
}

}  // namespace ofswitch
