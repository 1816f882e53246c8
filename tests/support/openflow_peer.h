// SPDX-License-Identifier: BSD-3-Clause
//
// The door through which tests look at what the module keeps to itself.
#pragma once

#include "modules/openflow/openflow.h"

struct OpenFlowPeer {
  static OpenFlowTable& table(OpenFlow& module, unsigned id) {
    return module.tables_[id];
  }
  static const rte_acl_config& aclConfig(const OpenFlow& module) {
    return module.aclConfig_;
  }
  static const rte_acl_config& ipv6AclConfig(const OpenFlow& module) {
    return module.ipv6AclConfig_;
  }
  static const Mio::Ptr<QuilModules::AclDb>& aclDb(const OpenFlow& module) {
    return module.aclDb_;
  }
  // Fills `actions` with one a packet of the table's batch.
  static int lookup(OpenFlow& module, uint8_t table,
                    bess::PacketBatch** tableBatches,
                    const OfFlowAction** actions) {
    return module.lookupFlowAcl(table, tableBatches, nullptr, actions);
  }
};
