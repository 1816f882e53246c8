// SPDX-License-Identifier: BSD-3-Clause
#include <google/protobuf/any.pb.h>

#include <memory>

#include "module_builder.h"
#include "tests/control/control_test.h"

namespace openflow_test {
namespace {

using google::protobuf::Any;

Any pack(const google::protobuf::Message& message) {
  Any any;
  any.PackFrom(message);
  return any;
}

const ModuleBuilder& builder() {
  return ModuleBuilder::all_module_builders().at("OpenFlow");
}

TEST(Registration, AnnouncesTheClass) {
  ASSERT_EQ(ModuleBuilder::all_module_builders().count("OpenFlow"), 1u);
  EXPECT_EQ(builder().class_name(), "OpenFlow");
  EXPECT_EQ(builder().name_template(), "OpenFlow");
  EXPECT_EQ(builder().help_text(), "OpenFlow packet processing");
  EXPECT_EQ(builder().NumIGates(), 8192);
  EXPECT_EQ(builder().NumOGates(), 8192);
}

TEST(Registration, HasThreeThreadSafeCommands) {
  struct Row {
    const char* cmd;
    const char* argType;
  };
  const Row rows[] = {
      {"updateFlows", "OpenFlowUpdateFlowsArg"},
      {"setAclIds", "OpenFlowAclArg"},
      {"getStats", "OpenFlowGetStatsArg"},
  };
  for (const Commands* commands : {&OpenFlow::cmds, &builder().cmds()}) {
    ASSERT_EQ(commands->size(), std::size(rows));
    for (size_t i = 0; i < std::size(rows); i++) {
      EXPECT_EQ((*commands)[i].cmd, rows[i].cmd);
      EXPECT_EQ((*commands)[i].arg_type, rows[i].argType);
      EXPECT_TRUE((*commands)[i].func);
      EXPECT_EQ((*commands)[i].mt_safe, Command::THREAD_SAFE);
      EXPECT_EQ(static_cast<int>((*commands)[i].mt_safe), 1);
    }
  }
}

TEST(Registration, GeneratesModulesForUpTo16Workers) {
  const Calls::Scope calls;
  const std::unique_ptr<Module> module(builder().CreateModule("generated"));
  ASSERT_NE(dynamic_cast<OpenFlow*>(module.get()), nullptr);
  EXPECT_EQ(module->name(), "generated");
  EXPECT_EQ(module->min_allowed_workers(), 1);
  EXPECT_EQ(module->max_allowed_workers(), 16);
}

TEST(Registration, InitTakesAnyArgument) {
  const Calls::Scope calls;
  quil::pb::OpenFlowAclArg unrelated;
  unrelated.set_tableid(40);
  for (const Any& arg : {Any(), pack(bess::pb::EmptyArg()), pack(unrelated)}) {
    const std::unique_ptr<Module> module(builder().CreateModule("module"));
    const TraceMark mark;
    EXPECT_THAT(builder().RunInit(module.get(), arg), Succeeds());
    EXPECT_THAT(traced(mark),
                testing::ElementsAre("2 CommandResponse OpenFlow::Init(const "
                                     "bess::pb::EmptyArg&): "));
    module->DeInit();
  }
}

// What goes to text is the operator's choice.
TEST(Registration, TurnsNoTraceLevelOn) {
  const Calls::Scope calls;
  const std::unique_ptr<Module> module(builder().CreateModule("module"));
  EXPECT_THAT(builder().RunInit(module.get(), Any()), Succeeds());
  EXPECT_EQ(Mio::traceLevels("OpenFlow"), 0u);
  module->DeInit();
}

class CommandAdapter : public ControlTest {
 protected:
  CommandResponse run(const std::string& name, const Any& arg) {
    return builder().RunCommand(module_.get(), name, arg);
  }

  // Arguments that are no message of the command's type.
  std::vector<Any> unusable(const std::string& type) {
    quil::pb::OpenFlowDeleteFlow unrelated;
    unrelated.set_flowid(7);
    Any malformed;
    malformed.set_type_url("type.googleapis.com/quil.pb." + type);
    malformed.set_value("\xff\xff\xff\xff");
    return {Any(), pack(unrelated), malformed};
  }
};

TEST_F(CommandAdapter, ReachesTheHandlers) {
  quil::pb::OpenFlowAclArg acl;
  acl.set_tableid(5);
  acl.set_aclid(20);
  acl.set_ipv6aclid(21);
  EXPECT_THAT(run("setAclIds", pack(acl)), Succeeds());
  EXPECT_EQ(table(5).ipv4.aclCtx, &slot(20));
  EXPECT_EQ(table(5).ipv6.aclCtx, &slot(21));

  const quil::pb::OpenFlowUpdateFlowsArg update =
      Update(5, kIpv6).add(Flow(1, 10)).add(Flow(2, 20));
  EXPECT_THAT(run("updateFlows", pack(update)), Succeeds());
  EXPECT_EQ(table(5).ipv6.numFlows, 2u);

  quil::pb::OpenFlowGetStatsArg which;
  which.set_tableid(5);
  const CommandResponse response = run("getStats", pack(which));
  EXPECT_FALSE(response.has_error());
  quil::pb::OpenFlowGetStatsRespArg stats;
  ASSERT_TRUE(response.data().UnpackTo(&stats));
  EXPECT_EQ(stats.numflows(), 0u);
  EXPECT_EQ(stats.numipv6flows(), 2u);
}

TEST_F(CommandAdapter, AnUnusableStatsArgumentReadsTableZero) {
  table(0).counters[0] = 7;
  for (const Any& arg : unusable("OpenFlowGetStatsArg")) {
    const CommandResponse response = run("getStats", arg);
    quil::pb::OpenFlowGetStatsRespArg stats;
    ASSERT_TRUE(response.data().UnpackTo(&stats));
    EXPECT_EQ(stats.updatefailures(), 7u);
  }
}

TEST_F(CommandAdapter, AnUnusableBindingBindsTableZeroToSlotZero) {
  for (const Any& arg : unusable("OpenFlowAclArg")) {
    table(0).ipv4.aclCtx = table(0).ipv6.aclCtx = nullptr;
    EXPECT_THAT(run("setAclIds", arg), Succeeds());
    EXPECT_EQ(table(0).ipv4.aclCtx, &slot(0));
    EXPECT_EQ(table(0).ipv6.aclCtx, &slot(0));
  }
}

TEST_F(CommandAdapter, AnUnusableUpdateRebuildsTableZero) {
  bind(0);
  for (const Any& arg : unusable("OpenFlowUpdateFlowsArg")) {
    const TraceMark mark;
    EXPECT_THAT(run("updateFlows", arg), Succeeds());
    EXPECT_THAT(traced(mark), testing::IsSupersetOf(
                                  {"2 updateFlows tableId: 0 flowType: 0",
                                   "2 programAcl No more flows for tableId: 0, "
                                   "flowType: 0"}));
  }
}

TEST_F(CommandAdapter, AFailureOfAHandlerIsPassedOn) {
  quil::pb::OpenFlowGetStatsArg which;
  which.set_tableid(32);
  EXPECT_THAT(run("getStats", pack(which)), FailsWith(-1, "Invalid table id"));
}

}  // namespace
}  // namespace openflow_test
