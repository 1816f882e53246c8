// SPDX-License-Identifier: BSD-3-Clause
//
// Arguments of module commands, by the word of their type and of their size.
#include "switch/control/module_command.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <string>

#include "control.h"
#include "graph.h"
#include "module_builder.h"
#include "openflow.pb.h"
#include "switch/control/host_report.h"
#include "tests/control_door/control_bench.h"

namespace ofswitch {
namespace {

using namespace std::string_literals;

// A module of somebody else's, with commands that need nothing.
class Bell final : public Module {
 public:
  CommandResponse Init(const bess::pb::EmptyArg&) { return CommandSuccess(); }
  CommandResponse ring(const bess::pb::EmptyArg&) {
    rings++;
    return CommandSuccess();
  }

  static inline int rings = 0;
};

[[maybe_unused]] const bool registered = ModuleBuilder::RegisterModuleClass(
    [] { return new Bell; }, "Bell", "bell", "rings", 0, 0,
    {{"ring", "EmptyArg", MODULE_CMD_FUNC(&Bell::ring), Command::THREAD_SAFE},
     {"setAclIds", "EmptyArg", MODULE_CMD_FUNC(&Bell::ring),
      Command::THREAD_SAFE},
     {"toll", "", MODULE_CMD_FUNC(&Bell::ring), Command::THREAD_SAFE}},
    MODULE_INIT_FUNC(&Bell::Init));

class ModuleCommands : public testing::Test {
 protected:
  void SetUp() override {
    onControl([] { bess::CreateModule("Bell", "bell"); });
    Bell::rings = 0;
  }
  void TearDown() override {
    onControl([] { bess::DestroyModule("bell"); });
  }

  static void onControl(const std::function<void()>& work) {
    bess::ControlThread::Instance().Run(work);
  }

  static bess::pb::Error run(const std::string& module,
                             const std::string& command,
                             const std::string& type,
                             const std::string& bytes = "") {
    return runWithUrl(module, command,
                      type.empty() ? "" : "type.googleapis.com/" + type, bytes);
  }

  static bess::pb::Error runWithUrl(const std::string& module,
                                    const std::string& command,
                                    const std::string& url,
                                    const std::string& bytes = "") {
    bess::pb::ModuleCommandRequest request;
    request.set_module(module);
    request.set_command(command);
    request.mutable_arg()->set_type_url(url);
    request.mutable_arg()->set_value(bytes);
    return runModuleCommand(request).error();
  }

  ControlBench control_;
};

TEST_F(ModuleCommands, NothingIsAnEmptyArgument) {
  EXPECT_EQ(run("bell", "ring", "").errmsg(), "");
  EXPECT_EQ(Bell::rings, 1);
  EXPECT_EQ(run("bell", "ring", "bess.pb.EmptyArg").errmsg(), "");
  EXPECT_EQ(Bell::rings, 2);
  for (const auto& [type, bytes] :
       {std::pair<std::string, std::string>{"", "x"},
        {"quil.pb.OpenFlowGetStatsArg", ""}}) {
    const bess::pb::Error error = run("bell", "ring", type, bytes);
    EXPECT_EQ(error.code(), EINVAL);
    EXPECT_EQ(error.errmsg(),
              "arg: is of type \"" + type + "\", must be \"EmptyArg\"");
  }
  EXPECT_EQ(Bell::rings, 2);
}

TEST_F(ModuleCommands, OfOtherModulesAreNotTheSwitchs) {
  EXPECT_EQ(run("bell", "setAclIds", "").errmsg(), "");
  EXPECT_EQ(Bell::rings, 1);
}

TEST_F(ModuleCommands, GoToModulesThatNoWorkerRuns) {
  const auto workers = listWorkers();
  ASSERT_EQ(workers.workers_size(), 1);
  EXPECT_GT(workers.workers(0).modules_size(), 0);
  for (const std::string& name : workers.workers(0).modules()) {
    EXPECT_NE(name, "bell");
  }
  bess::pb::GetModuleRequest request;
  request.set_name("bell");
  EXPECT_EQ(getModule(request).workers_size(), 0);
  EXPECT_EQ(run("bell", "ring", "").errmsg(), "");
  EXPECT_EQ(Bell::rings, 1);
}

// As long as the right one, and in the right place.
TEST_F(ModuleCommands, TakeTheirArgumentByItsWholeName) {
  EXPECT_EQ(run("bell", "ring", "bess.pb.EmptyArg").code(), 0);
  EXPECT_EQ(run("bell", "ring", "bess.pb.EmptyAr_").errmsg(),
            "arg: is of type \"bess.pb.EmptyAr_\", must be \"EmptyArg\"");
  EXPECT_EQ(run("bell", "ring", "bess.pb_EmptyArg").errmsg(),
            "arg: is of type \"bess.pb_EmptyArg\", must be \"EmptyArg\"");
  EXPECT_EQ(Bell::rings, 1);
}

TEST_F(ModuleCommands, NeedNoTypeForNothing) {
  EXPECT_EQ(run("bell", "toll", "").errmsg(), "");
  EXPECT_EQ(Bell::rings, 1);
  EXPECT_EQ(run("bell", "toll", "bess.pb.EmptyArg").errmsg(),
            "arg: is of type \"bess.pb.EmptyArg\", must be \"\"");
  EXPECT_EQ(Bell::rings, 1);
}

// Without one, what they were sent would be taken for an empty argument.
TEST_F(ModuleCommands, TakeTheNameOfTheTypeBehindASlash) {
  for (const auto& [module, command, type] :
       {std::array{"bell", "ring", "bess.pb.EmptyArg"},
        std::array{"openflow", "getStats", "quil.pb.OpenFlowGetStatsArg"}}) {
    const bess::pb::Error error = runWithUrl(module, command, type);
    EXPECT_EQ(error.code(), EINVAL);
    EXPECT_EQ(error.errmsg(), fmt::format("arg: is of type \"{0}\", must be "
                                          "\"type.googleapis.com/{0}\"",
                                          type));
    EXPECT_EQ(runWithUrl(module, command, "/"s + type).errmsg(), "");
  }
  EXPECT_EQ(Bell::rings, 1);
}

TEST_F(ModuleCommands, TooLongIsNotWrong) {
  constexpr char kType[] = "quil.pb.OpenFlowGetStatsArg";
  std::string many;
  for (int i = 0; i < 4'000'001; i++) many += std::string("\xf8\x01\0", 3);
  const bess::pb::Error tooLong = run("openflow", "getStats", kType, many);
  EXPECT_EQ(tooLong.code(), E2BIG);
  EXPECT_EQ(tooLong.errmsg(), "arg: the request has more than 4000000 fields");
  many.resize(many.size() - 3);
  EXPECT_EQ(run("openflow", "getStats", kType, many).errmsg(), "");
  EXPECT_EQ(run("openflow", "getStats", kType, "\x08").code(), EINVAL);
}

// A length in more bytes than it needs, which only the parser minds.
TEST_F(ModuleCommands, RefuseBytesThatOnlyTheParserMinds) {
  const std::string bytes("\x0a\x80\x80\x80\x80\x80\0", 7);
  bess::pb::Error error =
      run("openflow", "getStats", "quil.pb.OpenFlowGetStatsArg", bytes);
  EXPECT_EQ(error.code(), EINVAL);
  EXPECT_EQ(error.errmsg(),
            "arg: its bytes are no quil.pb.OpenFlowGetStatsArg");
  error = run("bell", "ring", "bess.pb.EmptyArg", bytes);
  EXPECT_EQ(error.errmsg(), "arg: its bytes are no bess.pb.EmptyArg");
  EXPECT_EQ(Bell::rings, 0);
}

}  // namespace
}  // namespace ofswitch
