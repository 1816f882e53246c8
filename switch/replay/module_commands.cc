// SPDX-License-Identifier: BSD-3-Clause
#include "switch/replay/module_commands.h"

#include <fmt/format.h>

#include <cerrno>
#include <stdexcept>

#include "dpdk_log.h"
#include "graph.h"
#include "plugin.h"
#include "switch/flow/update_batch.h"
#include "switch/replay/require.h"
#include "utils/acl_build_memory.h"

namespace ofswitch {
namespace {

CommandResponse command(const std::string& name,
                        const google::protobuf::Any& arg,
                        const std::string& what) {
  CommandResponse response = bess::RunModuleCommand(kModuleName, name, arg);
  require(response, what);
  return response;
}

void bindTables() {
  for (uint32_t table = 0; table < kNumTables; table++) {
    quil::pb::OpenFlowAclArg binding;
    binding.set_tableid(table);
    binding.set_aclid(2 * table);
    binding.set_ipv6aclid(2 * table + 1);
    command("setAclIds", packed(binding), "setAclIds");
  }
}

}  // namespace

google::protobuf::Any packed(const google::protobuf::Message& message) {
  google::protobuf::Any any;
  any.PackFrom(message);
  return any;
}

Module* makeModule(const std::string& path) {
  require(bess::LoadPlugin(path));
  try {
    const bess::CreateResult made = bess::CreateModule("OpenFlow", kModuleName);
    require(made.response, path);
    bindTables();
    return made.module;
  } catch (...) {
    bess::DestroyAllModules();
    bess::UnloadPlugin(path);
    throw;
  }
}

quil::pb::OpenFlowGetStatsRespArg tableStats(uint32_t table) {
  quil::pb::OpenFlowGetStatsArg arg;
  arg.set_tableid(table);
  quil::pb::OpenFlowGetStatsRespArg stats;
  command("getStats", packed(arg), "getStats").data().UnpackTo(&stats);
  return stats;
}

UpdateAnswer updateTable(const TableUpdate& update, Sender sender,
                         const MemorySettings& settings) {
  const quil::pb::OpenFlowGetStatsRespArg before = tableStats(update.tableid());
  // What DPDK says of a failure is part of the answer.
  const bess::DpdkLogCapture log;
  if (std::string missing = missingRoom(update, before, sender, settings);
      !missing.empty()) {
    return {std::move(missing), false};
  }
  const CommandResponse response =
      bess::RunModuleCommand(kModuleName, "updateFlows", packed(update));
  if (response.error().code() == 0) return {};
  const FailedUpdate failed = {response, before, tableStats(update.tableid()),
                               Dpdk::lastAclBuild(), log.Summary()};
  return {updateFailure(failed, settings), response.error().code() != -ENOMEM};
}

CommandResponse applyCommand(const PolicyCommand& one) {
  TableUpdate update;
  if (!one.arg.UnpackTo(&update)) {
    return command(one.name, one.arg,
                   fmt::format("{}: {}", one.where, one.name));
  }
  const std::string failure =
      updateTable(update, Sender::kOperator, {"--memory", "--build-memory"})
          .failure;
  if (!failure.empty()) {
    throw std::runtime_error(fmt::format(
        "{}: table {} {}: {}", one.where, update.tableid(),
        update.flowtype() == quil::pb::OPENFLOW_TYPE_IPV6 ? "IPv6" : "IPv4",
        failure));
  }
  return CommandSuccess();
}

}  // namespace ofswitch
