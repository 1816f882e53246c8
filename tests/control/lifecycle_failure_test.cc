// SPDX-License-Identifier: BSD-3-Clause
//
// Flow stores that cannot be made or destroyed.
#include <cerrno>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/control/control_test.h"

namespace openflow_test {
namespace {

using testing::ElementsAre;

constexpr const char* kInitTrace =
    "2 CommandResponse OpenFlow::Init(const bess::pb::EmptyArg&): ";

class InitFailure : public testing::TestWithParam<int> {
 protected:
  OpenFlowTable& table(unsigned id) {
    return OpenFlowPeer::table(*module_, id);
  }

  const Calls::Scope calls_;
  const std::unique_ptr<OpenFlow> module_ = std::make_unique<OpenFlow>();
};

// The n-th store fails, counted from 0: the IPv4 store of table n / 2, or its
// IPv6 store.
INSTANTIATE_TEST_SUITE_P(Store, InitFailure,
                         testing::Values(0, 1, 2, 3, 10, 11, 62, 63));

TEST_P(InitFailure, OfAnAllocationFreesTheStoresBefore) {
  const int n = GetParam();
  const bool ipv6 = n % 2 != 0;
  Calls::state().failNew = Calls::Fault::call(n);
  const TraceMark mark;
  EXPECT_THAT(
      module_->Init({}),
      FailsWith(ENOMEM, ipv6 ? "Creation of ipv6 flows hash table failed"
                             : "Creation of flows hash table failed"));
  EXPECT_THAT(
      traced(mark),
      ElementsAre(kInitTrace,
                  ipv6 ? "0 Init Failed to alloc memory for ipv6 flows hash "
                         "table"
                       : "0 Init Failed to alloc memory for flows hash table"));
  EXPECT_EQ(Calls::state().tablesMade.size(), static_cast<size_t>(n));
  EXPECT_EQ(Calls::state().tablesDestroyed, Calls::state().tablesMade);

  // Pointers to freed stores stay, as after DeInit.
  const int failed = n / 2;
  for (int t = 0; t < failed; t++) {
    EXPECT_NE(table(t).ipv4.flows, nullptr);
    EXPECT_NE(table(t).ipv6.flows, nullptr);
  }
  EXPECT_EQ(table(failed).ipv4.flows != nullptr, ipv6);
  EXPECT_EQ(table(failed).ipv6.flows, nullptr);
  EXPECT_EQ(table(failed).ipv4.ruleSize, 352u);
  EXPECT_EQ(OpenFlowPeer::aclConfig(*module_).num_fields, 0u)
      << "the configurations come last";
}

TEST_P(InitFailure, OfAnAllocationIsForgottenByTheNextInit) {
  Calls::state().failNew = Calls::Fault::call(GetParam());
  EXPECT_TRUE(module_->Init({}).has_error());
  EXPECT_THAT(module_->Init({}), Succeeds());
  module_->DeInit();
  EXPECT_EQ(Calls::state().tablesDestroyed, Calls::state().tablesMade);
}

TEST_P(InitFailure, OfAHashTableThrowsAndFreesNothing) {
  const int n = GetParam();
  Calls::state().failTable = Calls::Fault::call(n);
  testing::internal::CaptureStderr();
  std::string what = "nothing thrown";
  const TraceMark mark;
  try {
    module_->Init({});
  } catch (const std::runtime_error& error) {
    what = error.what();
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Error allocating hash table\n");
  EXPECT_EQ(what, "failed to construct");
  EXPECT_THAT(traced(mark), ElementsAre(kInitTrace));
  EXPECT_EQ(Calls::state().tablesMade.size(), static_cast<size_t>(n));
  EXPECT_TRUE(Calls::state().tablesDestroyed.empty());
  for (int i = 0; i < n; i++) {
    if (i % 2 == 0) {
      delete table(i / 2).ipv4.flows;
    } else {
      delete table(i / 2).ipv6.flows;
    }
  }
}

TEST_F(InitFailure, LeavesNothingAllocated) {
  OpenFlow other;  // keeps the database, so that its slots are no difference
  other.Init({});
  const HeapUse before = heapUse();
  for (const int n : {0, 11, 63}) {
    Calls::state().failNew = Calls::Fault::call(n);
    EXPECT_TRUE(module_->Init({}).has_error());
    EXPECT_EQ(heapUse(), before);
  }
  other.DeInit();
}

class DeInitFailure : public ControlTest,
                      public testing::WithParamInterface<unsigned> {};

INSTANTIATE_TEST_SUITE_P(Store, DeInitFailure, testing::Values(0, 5, 32, 63));

TEST_P(DeInitFailure, ThrowsAtTheStoreThatCannotBeDestroyed) {
  const unsigned failing = GetParam();
  bind(0);
  update(Update(0).add(Flow(1, 10)));
  const rte_acl_ctx* ctx = slotOf(0, kIpv4).data->ctx;
  std::vector<OpenFlowTable> before;
  for (unsigned t = 0; t < kNumTables; t++) before.push_back(table(t));
  Calls::state().failTableDestroy = Calls::Fault::call(failing);
  testing::internal::CaptureStderr();
  std::string what = "nothing thrown";
  const TraceMark mark;
  try {
    module().DeInit();
  } catch (const std::runtime_error& error) {
    what = error.what();
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Destroying hash table failed\n");
  EXPECT_EQ(what, "failed to destruct object");
  EXPECT_THAT(traced(mark), ElementsAre("2 virtual void OpenFlow::DeInit(): "));
  EXPECT_EQ(Calls::state().tablesDestroyed.size(), failing + 1);
  // The store of the classifier comes before it.
  EXPECT_EQ(Calls::state().aclFrees, failing == 0
                                         ? std::vector<const void*>{}
                                         : std::vector<const void*>{ctx});
  // What comes behind stays, and can be destroyed.
  for (unsigned store = failing + 1; store < 2 * kNumTables; store++) {
    const OpenFlowTable& record = table(store / 2);
    EXPECT_EQ(record.ipv4.flows, before[store / 2].ipv4.flows);
    EXPECT_EQ(record.ipv6.flows, before[store / 2].ipv6.flows);
    if (store % 2 == 0) {
      delete record.ipv4.flows;
    } else {
      delete record.ipv6.flows;
    }
  }
  module_.reset();
}

}  // namespace
}  // namespace openflow_test
