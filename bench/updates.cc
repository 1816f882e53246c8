// SPDX-License-Identifier: BSD-3-Clause
#include "bench/updates.h"

#include <dlfcn.h>
#include <rte_acl.h>
#include <urcu-qsbr.h>

#include <ctime>
#include <utility>

#include "bench/measure.h"
#include "control.h"
#include "graph.h"
#include "tests/support/openflow_peer.h"

namespace {

// Processor time of this thread in milliseconds.
double threadTime() {
  timespec now;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e3 +
         static_cast<double>(now.tv_nsec) / 1e6;
}

// What the library's two functions took since it was set to zero.
double inLibrary = 0;

std::function<void()> afterBuild;

}  // namespace

// The module finds these before the library's.
extern "C" int rte_acl_add_rules(rte_acl_ctx* ctx, const rte_acl_rule* rules,
                                 uint32_t count) {
  static const auto addRules = reinterpret_cast<decltype(&rte_acl_add_rules)>(
      dlsym(RTLD_NEXT, "rte_acl_add_rules"));
  const double start = threadTime();
  const int rc = addRules(ctx, rules, count);
  inLibrary += threadTime() - start;
  return rc;
}

extern "C" int rte_acl_build(rte_acl_ctx* ctx, const rte_acl_config* config) {
  static const auto build = reinterpret_cast<decltype(&rte_acl_build)>(
      dlsym(RTLD_NEXT, "rte_acl_build"));
  const double start = threadTime();
  const int rc = build(ctx, config);
  inLibrary += threadTime() - start;
  if (afterBuild) afterBuild();
  return rc;
}

namespace bench {
namespace {

void onCommandThread(const std::function<void()>& work) {
  bess::ControlThread::Instance().Run(work);
}

void check(const CommandResponse& response) {
  if (response.error().code() != 0) die(response.error().errmsg().c_str());
}

}  // namespace

google::protobuf::Any addsOf(
    const std::vector<quil::pb::OpenFlowAddFlow>& flows,
    quil::pb::OpenFlowType type) {
  quil::pb::OpenFlowUpdateFlowsArg arg;
  arg.set_flowtype(type);
  for (const auto& flow : flows) *arg.add_adds() = flow;
  google::protobuf::Any message;
  message.PackFrom(arg);
  return message;
}

Updates& Updates::instance() {
  static auto* updates = new Updates;
  return *updates;
}

Updates::Updates() {
  startEal(2048);
  const bess::CreateResult made = bess::CreateModule("OpenFlow");
  check(made.response);
  module_ = static_cast<OpenFlow*>(made.module);
  quil::pb::OpenFlowAclArg arg;
  arg.set_ipv6aclid(1);
  google::protobuf::Any any;
  any.PackFrom(arg);
  check(bess::RunModuleCommand(module_->name(), "setAclIds", any));
}

UpdateCost Updates::send(const google::protobuf::Any& message) {
  UpdateCost cost;
  onCommandThread([&] {
    inLibrary = 0;
    const double start = threadTime();
    check(bess::RunModuleCommand(module_->name(), "updateFlows", message));
    cost = {threadTime() - start, inLibrary};
    rcu_barrier();
  });
  return cost;
}

void Updates::clear(uint32_t flows, quil::pb::OpenFlowType type) {
  quil::pb::OpenFlowUpdateFlowsArg arg;
  arg.set_flowtype(type);
  for (uint32_t id = 1; id <= flows; id++) arg.add_deletes()->set_flowid(id);
  google::protobuf::Any message;
  message.PackFrom(arg);
  send(message);
}

Updates::Rules Updates::rules() {
  Rules rules;
  onCommandThread([&] {
    const auto* store = OpenFlowPeer::table(*module_, 0).ipv4.flows;
    cds_lfht_iter iter;
    for (auto* node = store->first(&iter); node != nullptr;
         node = store->next(&iter)) {
      rules.push_back(node->value->rule);
      rules.back().data.userdata = static_cast<uint32_t>(rules.size());
    }
  });
  return rules;
}

double Updates::bare(const Rules& rules) {
  double time = 0;
  onCommandThread([&] {
    rte_acl_param param = {};
    param.name = "bare";
    param.socket_id = SOCKET_ID_ANY;
    param.rule_size = sizeof(of_flow_acl_rule);
    param.max_rule_num = static_cast<uint32_t>(rules.size());
    rte_acl_ctx* ctx = rte_acl_create(&param);
    const auto* first = reinterpret_cast<const rte_acl_rule*>(rules.data());
    const double start = threadTime();
    const bool built =
        rte_acl_add_rules(ctx, first, param.max_rule_num) == 0 &&
        rte_acl_build(ctx, &OpenFlowPeer::aclConfig(*module_)) == 0;
    time = threadTime() - start;
    if (!built) die("the bare build fails");
    rte_acl_free(ctx);
  });
  return time;
}

void Updates::setAfterBuild(std::function<void()> work) {
  onCommandThread([&] { afterBuild = std::move(work); });
}

}  // namespace bench
