// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string>

#include "switch.pb.h"
#include "switch/live/flow_book.h"

namespace ofswitch {

// One flow as "flows dump" shows it.
pb::FlowEntry flowEntry(const FlowBook::View& view, FlowBook::Time now,
                        bool noStats);

}  // namespace ofswitch
