// SPDX-License-Identifier: BSD-3-Clause
#include "switch/replay/update_failure.h"

#include <gtest/gtest.h>

#include "utils/acl_build_memory.h"

namespace ofswitch {
namespace {

using Stats = quil::pb::OpenFlowGetStatsRespArg;

constexpr MemorySettings kSettings = {"mem", "builds"};

std::string textOf(const Stats& after) {
  CommandResponse response;
  response.mutable_error()->set_code(-12);
  response.mutable_error()->set_errmsg("Failed to update flows");
  Stats before;
  before.set_updatefailures(4);
  return updateFailure(response, before, after, kSettings);
}

// Every failure counts as one of the update, too.
Stats failed() {
  Stats stats;
  stats.set_updatefailures(5);
  return stats;
}

TEST(UpdateFailure, SaysWhichStepFailed) {
  {
    // The last build was not refused.
    const Dpdk::AclBuildScope build;
  }
  Stats stats = failed();
  EXPECT_EQ(textOf(stats), "there is no memory for its flows (mem)");
  stats.set_aclcreatefailures(1);
  EXPECT_EQ(textOf(stats), "there is no memory for its classifier (mem)");
  stats = failed();
  stats.set_acladdrulesfailures(1);
  EXPECT_EQ(textOf(stats), "the classifier library refused its flows");
  stats = failed();
  stats.set_aclbuildfailures(1);
  EXPECT_EQ(textOf(stats),
            "its classifier could not be built, usually for lack of memory "
            "(mem)");
}

TEST(UpdateFailure, WithoutACounterIsTheModulesAnswer) {
  Stats stats;
  stats.set_updatefailures(4);
  EXPECT_EQ(textOf(stats), "Failed to update flows (code -12)");
}

}  // namespace
}  // namespace ofswitch
