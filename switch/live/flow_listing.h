// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstddef>
#include <optional>
#include <utility>
#include <vector>

#include "switch.pb.h"
#include "switch/live/flow_report.h"

namespace ofswitch {

// Flows as they were at one moment, written out one by one as they are asked
// for. Used by one thread at a time; needs no switch any more.
class FlowListing {
 public:
  FlowListing() = default;
  FlowListing(std::vector<FlowBook::View> flows, FlowBook::Time now,
              bool noStats)
      : flows_(std::move(flows)), now_(now), noStats_(noStats) {}

  // Nothing after the last one.
  std::optional<pb::FlowEntry> next() {
    if (left() == 0) return std::nullopt;
    // A flow may be gone from the switch by now and live on only here.
    const FlowBook::View view = std::move(flows_[next_++]);
    return flowEntry(view, now_, noStats_);
  }

  size_t left() const { return flows_.size() - next_; }

 private:
  std::vector<FlowBook::View> flows_;
  size_t next_ = 0;
  FlowBook::Time now_;
  bool noStats_ = false;
};

}  // namespace ofswitch
