// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "modules/openflow/translate/flow_action.h"
#include "packet.h"

// Applies every header rewrite of `action` to `packet`, in place, in a fixed
// order: pop, VLAN id (pushing a tag where there is none), MACs, VLAN priority,
// then IP, then L4, checksums included. A rewrite that does not fit the packet
// is skipped. Any worker.
void rewritePacket(bess::Packet* packet, const OfFlowAction& action);
