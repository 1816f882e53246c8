// SPDX-License-Identifier: BSD-3-Clause
#include "switch/replay/update_failure.h"

#include <fmt/format.h>

#include "utils/acl_build_memory.h"

namespace ofswitch {

std::string updateFailure(const CommandResponse& response,
                          const quil::pb::OpenFlowGetStatsRespArg& before,
                          const quil::pb::OpenFlowGetStatsRespArg& after,
                          const MemorySettings& settings) {
  if (after.aclbuildfailures() > before.aclbuildfailures()) {
    const Dpdk::AclBuildMemory build = Dpdk::lastAclBuild();
    if (build.refused) {
      return fmt::format(
          "its classifier needs more than {} MB to build ({}): fields that "
          "some flows leave open and others fix multiply, see "
          "docs/flow-sets.md",
          build.limit >> 20, settings.builds);
    }
    return fmt::format(
        "its classifier could not be built, usually for lack of memory ({})",
        settings.memory);
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
  return fmt::format("{} (code {})", response.error().errmsg(),
                     response.error().code());
}

}  // namespace ofswitch
