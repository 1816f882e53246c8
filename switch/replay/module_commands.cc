// SPDX-License-Identifier: BSD-3-Clause
#include "switch/replay/module_commands.h"

#include <fmt/format.h>

#include <stdexcept>

#include "dpdk_log.h"
#include "graph.h"
#include "plugin.h"
#include "switch/flow/update_batch.h"
#include "switch/replay/update_failure.h"

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

void require(const std::string& error) {
  if (!error.empty()) {
    throw std::runtime_error(error);
  }
}

void require(const CommandResponse& response, const std::string& what) {
  if (response.error().code() != 0) {
    throw std::runtime_error(fmt::format("{}: {} (code {})", what,
                                         response.error().errmsg(),
                                         response.error().code()));
  }
}

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

CommandResponse applyCommand(const PolicyCommand& one) {
  TableUpdate update;
  if (!one.arg.UnpackTo(&update)) {
    return command(one.name, one.arg,
                   fmt::format("{}: {}", one.where, one.name));
  }
  const quil::pb::OpenFlowGetStatsRespArg before = tableStats(update.tableid());
  // What the classifier library says of a failure is in the error.
  const bess::DpdkLogCapture log;
  CommandResponse response =
      bess::RunModuleCommand(kModuleName, one.name, one.arg);
  if (response.error().code() != 0) {
    throw std::runtime_error(fmt::format(
        "{}: table {} {}: {}", one.where, update.tableid(),
        update.flowtype() == quil::pb::OPENFLOW_TYPE_IPV6 ? "IPv6" : "IPv4",
        updateFailure(response, before, tableStats(update.tableid()),
                      {"--memory", "--build-memory"})));
  }
  return response;
}

}  // namespace ofswitch
