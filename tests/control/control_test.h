// SPDX-License-Identifier: BSD-3-Clause
//
// What the tests of the module's commands share: an initialised module on the
// test's own thread, which is an RCU reader, and eyes for what a command did.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "modules/openflow/openflow.h"
#include "openflow.pb.h"
#include "tests/control/calls.h"
#include "tests/support/flow.h"
#include "tests/support/openflow_peer.h"
#include "tests/support/traces.h"

namespace openflow_test {

// An update, in words: Update(3, kIpv6).add(Flow(1, 10)).erase(2).
inline constexpr int kIpv4 = 0;
inline constexpr int kIpv6 = 1;

class Update {
 public:
  explicit Update(uint32_t tableId, int flowType = kIpv4);
  Update& add(const Flow& flow);
  Update& erase(uint32_t flowId);
  operator const quil::pb::OpenFlowUpdateFlowsArg&() const { return arg_; }

 private:
  quil::pb::OpenFlowUpdateFlowsArg arg_;
};

// A module of its own for every test, initialised; no table is bound. On the
// way out it is torn down, and slots are emptied, unless the test did so.
class ControlTest : public testing::Test {
 protected:
  ControlTest();
  ~ControlTest() override;

  OpenFlow& module() { return *module_; }
  OpenFlowTable& table(unsigned id) {
    return OpenFlowPeer::table(*module_, id);
  }
  QuilModules::AclCtx& slot(uint32_t id);

  // Binds table t to the slots 2t (IPv4) and 2t + 1 (IPv6).
  void bind(uint32_t tableId);
  CommandResponse bind(uint32_t tableId, uint32_t aclId, uint32_t ipv6AclId);

  // The slot to which bind(tableId) has bound the family.
  QuilModules::AclCtx& slotOf(uint32_t tableId, int flowType);

  // An update that must succeed.
  void update(const quil::pb::OpenFlowUpdateFlowsArg& arg);

  // Ends the module's life as the host does.
  void tearDown();

  const Calls::Scope calls_;
  std::unique_ptr<OpenFlow> module_;
};

// A test that runs for each family, on table 3, which is bound.
class FamilyTest : public ControlTest, public testing::WithParamInterface<int> {
 protected:
  FamilyTest() { bind(3); }

  bool ipv6() const { return GetParam() == kIpv6; }
  std::string type() const { return std::to_string(GetParam()); }

  Update message() { return Update(3, GetParam()); }
  QuilModules::AclCtx& mine() { return slotOf(3, GetParam()); }
  uint32_t& numFlows() {
    return ipv6() ? table(3).ipv6.numFlows : table(3).ipv4.numFlows;
  }
  std::vector<uint32_t> stored();

  // "table3-7" or "table3-ipv6-7".
  std::string contextName(uint32_t generation) const;
};

#define INSTANTIATE_FAMILIES(suite)                                 \
  INSTANTIATE_TEST_SUITE_P(                                         \
      Family, suite,                                                \
      testing::Values(openflow_test::kIpv4, openflow_test::kIpv6),  \
      [](const auto& row) {                                         \
        return row.param == openflow_test::kIpv6 ? "Ipv6" : "Ipv4"; \
      })

// The size of a userdata array of `records` records.
inline constexpr size_t userdataSize(size_t records) {
  return records * sizeof(QuilModules::KoAclUserdata);
}

// Frees a userdata array that a failed build has kept, and its blocks.
void freeKeptUserdata(void* array, size_t records);

// Whether a response is a success without data.
testing::Matcher<const CommandResponse&> Succeeds();
testing::Matcher<const CommandResponse&> FailsWith(int code,
                                                   const std::string& text);

// What was traced since `mark`: level, blank, text.
std::vector<std::string> traced(const TraceMark& mark);

// The records that a slot's classifier selects, 1 to n; an empty list for an
// empty slot.
std::vector<const OfFlowAction*> publishedActions(
    const QuilModules::AclCtx& slot);

// The action of the published rule that wins for `key`; null when none matches.
const OfFlowAction* classify(const QuilModules::AclCtx& slot, const void* key);

// The flows that a table stores for a family.
std::vector<uint32_t> storedFlows(const OpenFlowTable& table, int flowType);

// Blocks and bytes that are allocated in DPDK's heap, deferred releases done.
struct HeapUse {
  size_t blocks;
  size_t bytes;
  bool operator==(const HeapUse&) const = default;
};
HeapUse heapUse();
void PrintTo(const HeapUse& use, std::ostream* out);

// A reader of published classifiers that stays in its read-side section until
// told to leave.
class Reader {
 public:
  Reader();
  ~Reader();
  void leave();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

// Waits so long that a release which did not wait for readers would show.
void letWrongReleasesShow();

}  // namespace openflow_test
