// SPDX-License-Identifier: BSD-3-Clause
//
// The header rewrites of a flow, on one packet, in their order.
#pragma once

#include "openflow.pb.h"
#include "tests/support/reference_packet.h"

namespace openflow_test {

void referenceRewrite(const quil::pb::OfAction& action,
                      ReferencePacket* packet);

}  // namespace openflow_test
