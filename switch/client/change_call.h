// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string>

#include "switch.pb.h"
#include "switch/client/switch_client.h"

namespace ofswitch {

// Changes flows, with a bar on a terminal while it takes long. Answers how it
// went, which may be that nothing was changed. Throws ClientError.
pb::FlowChangeReply changeFlows(SwitchClient* client, pb::FlowChange change);

// "flows: 2 added, 1 changed, 0 removed, 12 unchanged" and a line about the
// builds of classifiers; with `everyBuild` also one about each.
std::string changeText(const pb::FlowChangeReply& reply, bool everyBuild);

}  // namespace ofswitch
