// SPDX-License-Identifier: BSD-3-Clause
#include "tests/support/module_harness.h"

#include <urcu-qsbr.h>

#include <stdexcept>
#include <utility>

#include "control.h"
#include "eal.h"
#include "modules/openflow/openflow.h"
#include "tests/support/internal/harness_impl.h"

namespace openflow_test {

ModuleHarness::ModuleHarness(Options options)
    : impl_(std::make_unique<Impl>(std::move(options))) {}

ModuleHarness::~ModuleHarness() = default;

CommandResponse ModuleHarness::command(const std::string& name,
                                       const google::protobuf::Message& arg) {
  return impl_->command(name, arg);
}

CommandResponse ModuleHarness::updateFlows(
    const quil::pb::OpenFlowUpdateFlowsArg& arg) {
  impl_->noteFlows(arg);
  return impl_->command("updateFlows", arg);
}

CommandResponse ModuleHarness::setAclIds(uint32_t tableId, uint32_t aclId,
                                         uint32_t ipv6AclId) {
  quil::pb::OpenFlowAclArg arg;
  arg.set_tableid(tableId);
  arg.set_aclid(aclId);
  arg.set_ipv6aclid(ipv6AclId);
  return impl_->command("setAclIds", arg);
}

CommandResponse ModuleHarness::getStats(
    uint32_t tableId, quil::pb::OpenFlowGetStatsRespArg* stats) {
  quil::pb::OpenFlowGetStatsArg arg;
  arg.set_tableid(tableId);
  CommandResponse response = impl_->command("getStats", arg);
  stats->Clear();
  response.data().UnpackTo(stats);
  return response;
}

void ModuleHarness::addFlows(uint32_t tableId, const std::vector<Flow>& flows,
                             Family family) {
  quil::pb::OpenFlowUpdateFlowsArg arg;
  arg.set_tableid(tableId);
  arg.set_flowtype(static_cast<quil::pb::OpenFlowType>(family));
  for (const Flow& flow : flows) *arg.add_adds() = flow.message();
  requireSuccess(updateFlows(arg), "adding flows");
}

void ModuleHarness::deleteFlows(uint32_t tableId,
                                const std::vector<uint32_t>& flowIds,
                                Family family) {
  quil::pb::OpenFlowUpdateFlowsArg arg;
  arg.set_tableid(tableId);
  arg.set_flowtype(static_cast<quil::pb::OpenFlowType>(family));
  for (const uint32_t id : flowIds) arg.add_deletes()->set_flowid(id);
  requireSuccess(updateFlows(arg), "deleting flows");
}

quil::pb::OpenFlowGetStatsRespArg ModuleHarness::stats(uint32_t tableId) {
  quil::pb::OpenFlowGetStatsRespArg stats;
  requireSuccess(getStats(tableId, &stats), "reading statistics");
  return stats;
}

void ModuleHarness::clearFlows() {
  const auto flows = impl_->flows();
  for (const auto& [where, ids] : flows) {
    if (!ids.empty()) {
      deleteFlows(where.first, {ids.begin(), ids.end()}, where.second);
    }
  }
  impl_->forgetFlows();
}

RunResult ModuleHarness::run(const std::vector<InputPacket>& packets, int wid) {
  return impl_->run(packets, wid);
}

uint64_t ModuleHarness::flowCounter(uint32_t id, int wid) const {
  return impl_->flowCounter(id, wid);
}

TableCounters ModuleHarness::tableCounters(unsigned table) {
  return impl_->tableCounters(table);
}

size_t ModuleHarness::freePackets() const { return impl_->packets.free(); }

void ModuleHarness::drainPool(size_t left) { impl_->packets.drain(left); }

void ModuleHarness::refillPool() { impl_->packets.refill(); }

void ModuleHarness::beforeBatch(std::function<void()> hook) {
  impl_->beforeBatch = std::move(hook);
}

OpenFlow& ModuleHarness::module() {
  if (!impl_->options.pluginPath.empty()) {
    throw std::runtime_error("the module's class is inside the plug-in");
  }
  return static_cast<OpenFlow&>(*impl_->module);
}

Module& ModuleHarness::hostModule() { return *impl_->module; }

void ModuleHarness::onCommandThread(const std::function<void()>& work) {
  bess::ControlThread::Instance().Run(work);
}

void ModuleHarness::waitForReleases() {
  bess::ControlThread::Instance().Run([] { urcu_qsbr_barrier(); });
}

void ModuleHarness::startEal() {
  const std::string error = bess::InitEal();
  if (!error.empty()) throw std::runtime_error(error);
  bess::ControlThread::Instance();
}

}  // namespace openflow_test
