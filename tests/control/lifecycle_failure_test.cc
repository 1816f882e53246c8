// SPDX-License-Identifier: BSD-3-Clause
//
// Flow stores that cannot be made or destroyed.
#include <cerrno>
#include <stdexcept>
#include <string>

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

class DeInitFailure : public ControlTest {};

TEST_F(DeInitFailure, ThrowsAtTheStoreThatCannotBeDestroyed) {
  const OpenFlowTable before = table(2);
  Calls::state().failTableDestroy = Calls::Fault::call(5);
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
  EXPECT_EQ(Calls::state().tablesDestroyed.size(), 6u);
  EXPECT_EQ(table(2).ipv6.flows, before.ipv6.flows);
  for (unsigned t = 3; t < kNumTables; t++) {
    delete table(t).ipv4.flows;
    delete table(t).ipv6.flows;
  }
  module_.reset();
}

}  // namespace
}  // namespace openflow_test
