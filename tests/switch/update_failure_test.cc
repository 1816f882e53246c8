// SPDX-License-Identifier: BSD-3-Clause
#include "switch/replay/update_failure.h"

#include <gtest/gtest.h>

#include <string>

#include "utils/acl_build_memory.h"

namespace ofswitch {
namespace {

using Stats = quil::pb::OpenFlowGetStatsRespArg;

constexpr MemorySettings kSettings = {"mem", "builds"};

std::string textOf(const Stats& after, const Dpdk::AclBuildMemory& build = {},
                   const std::string& log = "") {
  FailedUpdate update;
  update.response.mutable_error()->set_code(-12);
  update.response.mutable_error()->set_errmsg("Failed to update flows");
  update.before.set_updatefailures(4);
  update.after = after;
  update.build = build;
  update.log = log;
  return updateFailure(update, kSettings);
}

// Every failure counts as one of the update, too.
Stats failed() {
  Stats stats;
  stats.set_updatefailures(5);
  return stats;
}

TEST(UpdateFailure, SaysWhichStepFailed) {
  Stats stats = failed();
  EXPECT_EQ(textOf(stats), "there is no memory for its flows (mem)");
  stats.set_aclcreatefailures(1);
  EXPECT_EQ(textOf(stats), "there is no memory for its classifier (mem)");
  stats = failed();
  stats.set_acladdrulesfailures(1);
  EXPECT_EQ(textOf(stats), "the classifier library refused its flows");
}

TEST(UpdateFailure, SaysWhatIsKnownOfTheBuild) {
  constexpr size_t kMb = size_t{1} << 20;
  Stats stats = failed();
  stats.set_aclbuildfailures(1);
  EXPECT_EQ(textOf(stats, {.peak = 48 * kMb, .limit = 64 * kMb}),
            "its classifier could not be built: either DPDK's memory has no "
            "room for it (mem), or its flows need more tries than a classifier "
            "can have and belong in more tables, see docs/flow-sets.md");
  EXPECT_EQ(
      textOf(stats, {.peak = 48 * kMb, .limit = 64 * kMb},
             "ACL: Exceeded max number of tries: 8"),
      "its flows need more tries than a classifier can have (ACL: Exceeded max "
      "number of tries: 8) and belong in more tables, see docs/flow-sets.md");
  EXPECT_EQ(
      textOf(stats, {.peak = 48 * kMb, .limit = 64 * kMb},
             "ACL: allocation of 25166744 bytes on socket 0 for flows failed"),
      "its classifier could not be built (ACL: allocation of 25166744 bytes on "
      "socket 0 for flows failed): either DPDK's memory has no room for it "
      "(mem), or its flows need more tries than a classifier can have and "
      "belong in more tables, see docs/flow-sets.md");
  EXPECT_EQ(
      textOf(stats, {.peak = 48 * kMb, .limit = 64 * kMb, .refused = true},
             "MALLOC: tb_pool(8388608)"),
      "its classifier needs more than 64 MB to build (builds): fields "
      "that some flows leave open and others fix multiply, see "
      "docs/flow-sets.md");
  EXPECT_EQ(
      textOf(stats, {.peak = 48 * kMb, .limit = 64 * kMb, .starved = true},
             "MALLOC: tb_pool(8388608)"),
      "its classifier needs more than 48 MB to build, and the system has no "
      "more memory; free some on the machine, or put fewer flows in the table");
  EXPECT_EQ(
      textOf(stats, {.peak = 0, .limit = 64 * kMb, .starved = true}),
      "the system has no memory to build its classifier; free some on the "
      "machine, or put fewer flows in the table");
}

TEST(UpdateFailure, WithoutACounterIsTheModulesAnswer) {
  Stats stats;
  stats.set_updatefailures(4);
  EXPECT_EQ(textOf(stats), "Failed to update flows (code -12)");
}

}  // namespace
}  // namespace ofswitch
