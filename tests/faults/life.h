// SPDX-License-Identifier: BSD-3-Clause
//
// A module's whole life around one operation that fails: what its tables hold
// and publish before and after, and what is still allocated when it is gone.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "modules/openflow/openflow.h"
#include "openflow.pb.h"
#include "tests/faults/ledger.h"
#include "tests/support/flow.h"
#include "tests/support/openflow_peer.h"

namespace faults {

inline constexpr int kIpv4 = 0;
inline constexpr int kIpv6 = 1;

// Flows by identifier, each with a number that tells its versions apart.
using Versions = std::map<uint32_t, uint32_t>;

// A match without an action.
inline constexpr uint32_t kNoAction = 0xffffffff;

// One message: the flows of `adds`, then deletes. A flow matches its own
// identifier as protocol number.
quil::pb::OpenFlowUpdateFlowsArg updateOf(uint32_t tableId, int flowType,
                                          const Versions& adds,
                                          const std::vector<uint32_t>& deletes);

std::string resultOf(const bess::pb::CommandResponse& response);

// How a command ended: "done", "-12: Failed to update flows", or what it threw.
// A watch ends with it.
template <class Operation>
std::string outcome(Operation operation) {
  try {
    const bess::pb::CommandResponse response = operation();
    Ledger::Watch::stop();
    return resultOf(response);
  } catch (const std::bad_alloc&) {
    Ledger::Watch::stop();
    return "bad_alloc";
  } catch (const std::runtime_error& error) {
    Ledger::Watch::stop();
    return error.what();
  }
}

// An initialised module on the calling thread.
class Life {
 public:
  Life();
  ~Life();

  OpenFlow& module() { return *module_; }
  OpenFlowTable& table(uint32_t id);

  // Binds the table to the slots 2t (IPv4) and 2t + 1 (IPv6). Names of its
  // classifiers are so long that they need memory.
  void bind(uint32_t tableId);
  std::string bind(uint32_t tableId, uint32_t aclId, uint32_t ipv6AclId);
  QuilModules::AclCtx& slot(uint32_t id);

  // Deletes the flows of a table that bind() has bound, waits until they are
  // released, and starts its counters and the slot's builds anew.
  void empty(uint32_t tableId, int flowType);

  std::string update(const quil::pb::OpenFlowUpdateFlowsArg& arg);

  // What the flow store holds; also checks its count.
  Versions stored(uint32_t tableId, int flowType);

  // What a packet of each protocol number meets in the published classifier.
  Versions published(uint32_t tableId, int flowType);

  // The counters that are not 0, by index.
  std::map<int, uint64_t> counters(uint32_t tableId);

  // DeInit and destruction.
  void end();

 private:
  std::unique_ptr<OpenFlow> module_;
};

// Has everything released that waits for a grace period, or for the database
// after the one whose slots hold it.
void releaseAll();

// Blocks in DPDK's heap.
int dpdkBlocks();

}  // namespace faults
