// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <prometheus/metric_family.h>

#include <vector>

#include "switch/live/live_switch.h"

namespace ofswitch {

// One reading of a switch as Prometheus wants it: base units, counters that
// only grow. Every family is there, also one that has nothing to tell yet.
//
// A table has series once it has held flows, seen packets or failed a build; a
// flow has series while it is in force and among those of the reading.
std::vector<prometheus::MetricFamily> metricFamilies(
    const LiveSwitch::Reading& reading);

}  // namespace ofswitch
