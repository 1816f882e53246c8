// SPDX-License-Identifier: BSD-3-Clause
#include "switch/replay/update_failure.h"

#include <fmt/format.h>

namespace ofswitch {
namespace {

// The library answers that it has no memory whatever the reason. Its log tells
// of too many tries, in these words so far.
std::string buildFailure(const FailedUpdate& update,
                         const MemorySettings& settings) {
  const Dpdk::AclBuildMemory& build = update.build;
  if (build.refused) {
    return fmt::format(
        "its classifier needs more than {} MB to build ({}): fields that "
        "some flows leave open and others fix multiply, see "
        "docs/flow-sets.md",
        build.limit >> 20, settings.builds);
  }
  if (build.starved) {
    // The system may refuse the very first block.
    const size_t mb = build.peak >> 20;
    const std::string lack =
        mb == 0 ? "the system has no memory to build its classifier"
                : fmt::format(
                      "its classifier needs more than {} MB to build, "
                      "and the system has no more memory",
                      mb);
    return lack + "; free some on the machine, or put fewer flows in the table";
  }
  if (update.log.find("number of tries") != std::string::npos) {
    return fmt::format(
        "its flows need more tries than a classifier can have ({}) and belong "
        "in more tables, see docs/flow-sets.md",
        update.log);
  }
  return fmt::format(
      "its classifier could not be built{}: either DPDK's memory has no room "
      "for it ({}), or its flows need more tries than a classifier can have "
      "and belong in more tables, see docs/flow-sets.md",
      update.log.empty() ? "" : fmt::format(" ({})", update.log),
      settings.memory);
}

}  // namespace

std::string updateFailure(const FailedUpdate& update,
                          const MemorySettings& settings) {
  const quil::pb::OpenFlowGetStatsRespArg& before = update.before;
  const quil::pb::OpenFlowGetStatsRespArg& after = update.after;
  if (after.aclbuildfailures() > before.aclbuildfailures()) {
    return buildFailure(update, settings);
  }
  if (after.acladdrulesfailures() > before.acladdrulesfailures()) {
    return "the classifier library refused its flows";
  }
  if (after.aclcreatefailures() > before.aclcreatefailures()) {
    return fmt::format("there is no memory for its classifier ({})",
                       settings.memory);
  }
  if (after.updatefailures() > before.updatefailures()) {
    return fmt::format("there is no memory for its flows ({})",
                       settings.memory);
  }
  return fmt::format("{} (code {})", update.response.error().errmsg(),
                     update.response.error().code());
}

}  // namespace ofswitch
