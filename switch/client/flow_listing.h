// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "switch/client/switch_client.h"

namespace ofswitch {

// Prints the flows that `filter` selects as they come, a line each or as one
// JSON array. Throws ClientError.
void printFlows(SwitchClient* client, const pb::FlowFilter& filter, bool json);

}  // namespace ofswitch
