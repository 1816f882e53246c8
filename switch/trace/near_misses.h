// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "switch/flow/module_rules.h"

namespace ofswitch {

// Of the flows that do not match a packet, those that do so by the fewest
// fields; among them those of the highest priority, then the oldest.
class NearMisses {
 public:
  static constexpr size_t kKept = 3;

  // `key` is the packet's; it must outlive this.
  explicit NearMisses(const Match& key) : key_(key) {}

  // `order` grows from flow to flow as they were installed.
  void consider(const std::shared_ptr<const InstalledFlow>& flow,
                uint64_t order);

  struct Miss {
    std::shared_ptr<const InstalledFlow> flow;
    int differences = 0;
    uint64_t order = 0;
  };
  // The nearest first.
  const std::vector<Miss>& nearest() const { return nearest_; }

 private:
  const Match& key_;
  std::vector<Miss> nearest_;
};

}  // namespace ofswitch
