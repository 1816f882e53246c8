// SPDX-License-Identifier: BSD-3-Clause
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <new>

#include "internal/plugin_scope.h"
#include "module_builder.h"
#include "probe.h"

namespace {

using testing::ElementsAre;

// Memory of its own, as a module in DPDK's heap has it.
class Own final : public Module {
 public:
  static int allocated;
  static int freed;

  void* operator new(size_t size) {
    allocated++;
    return ::operator new (size, std::align_val_t{alignof(Own)});
  }
  void operator delete(void* memory) {
    freed++;
    ::operator delete (memory, std::align_val_t{alignof(Own)});
  }
};

int Own::allocated;
int Own::freed;

bool RegisterOwn() {
  return ModuleBuilder::RegisterModuleClass(
      [] { return new Own(); }, "Own", "own_template", "keeps its memory", 3, 4,
      Commands(), MODULE_INIT_FUNC(&Own::Init));
}

const ModuleBuilder* Find(const std::string& name) {
  const auto& builders = ModuleBuilder::all_module_builders();
  const auto it = builders.find(name);
  return it != builders.end() ? &it->second : nullptr;
}

TEST(ModuleBuilderTest, KnowsWhatWasRegistered) {
  ASSERT_TRUE(RegisterOwn());
  const ModuleBuilder* builder = Find("Own");
  ASSERT_NE(builder, nullptr);
  EXPECT_EQ(builder->class_name(), "Own");
  EXPECT_EQ(builder->name_template(), "own_template");
  EXPECT_EQ(builder->help_text(), "keeps its memory");
  EXPECT_EQ(builder->NumIGates(), 3);
  EXPECT_EQ(builder->NumOGates(), 4);
  EXPECT_TRUE(builder->cmds().empty());
  EXPECT_EQ(builder->owner(), "");
  EXPECT_TRUE(ModuleBuilder::DeregisterModuleClass("Own"));
  EXPECT_EQ(Find("Own"), nullptr);
}

TEST(ModuleBuilderTest, EndsOfTheGraphHaveGatesOnOneSide) {
  struct Gates {
    const char* name;
    gate_idx_t in;
    gate_idx_t out;
  };
  for (const auto& [name, in, out] :
       {Gates{"PortIn", 0, 1}, Gates{"PortOut", 1, 0}, Gates{"Source", 0, 1},
        Gates{"Sink", MAX_GATES, 0}}) {
    SCOPED_TRACE(name);
    ASSERT_NE(Find(name), nullptr);
    EXPECT_EQ(Find(name)->NumIGates(), in);
    EXPECT_EQ(Find(name)->NumOGates(), out);
  }
}

TEST(ModuleBuilderTest, KeepsCommandsInOrder) {
  const Commands& cmds = Find("Probe")->cmds();
  ASSERT_EQ(cmds.size(), 4u);
  EXPECT_EQ(cmds[0].cmd, "safe");
  EXPECT_EQ(cmds[0].arg_type, "EmptyArg");
  EXPECT_EQ(cmds[0].mt_safe, 1);
  EXPECT_EQ(cmds[1].cmd, "unsafe");
  EXPECT_EQ(cmds[1].mt_safe, 0);
  EXPECT_EQ(cmds[2].cmd, "throw");
  EXPECT_EQ(cmds[3].arg_type, "Error");
}

TEST(ModuleBuilderTest, ANameIsTakenOnce) {
  ASSERT_TRUE(RegisterOwn());
  EXPECT_FALSE(RegisterOwn());
  EXPECT_TRUE(ModuleBuilder::DeregisterModuleClass("Own"));
  EXPECT_FALSE(ModuleBuilder::DeregisterModuleClass("Own"));
  EXPECT_FALSE(ModuleBuilder::DeregisterModuleClass("Nobody"));
}

// As at the end of the process, when nobody unloads plug-ins one by one.
TEST(ModuleBuilderTest, APlugInsClassGoesAlsoOutsideOfItsUnloading) {
  {
    const bess::internal::PluginScope scope("a.so");
    ASSERT_TRUE(RegisterOwn());
  }
  EXPECT_EQ(Find("Own")->owner(), "a.so");
  {
    const bess::internal::PluginScope other("b.so");
    EXPECT_FALSE(ModuleBuilder::DeregisterModuleClass("Own"));
  }
  EXPECT_TRUE(ModuleBuilder::DeregisterModuleClass("Own"));
  EXPECT_EQ(Find("Own"), nullptr);
}

TEST(ModuleBuilderTest, AClassWithInstancesStays) {
  ASSERT_TRUE(RegisterOwn());
  const ModuleBuilder* builder = Find("Own");
  Module* a = builder->CreateModule("a");
  Module* b = builder->CreateModule("b");
  EXPECT_THAT(builder->instances(), ElementsAre(a, b));
  EXPECT_FALSE(ModuleBuilder::DeregisterModuleClass("Own"));
  delete a;
  EXPECT_FALSE(ModuleBuilder::DeregisterModuleClass("Own"));
  EXPECT_THAT(builder->instances(), ElementsAre(b));
  delete b;
  EXPECT_TRUE(ModuleBuilder::DeregisterModuleClass("Own"));
}

TEST(ModuleBuilderTest, UsesTheClasssOwnMemory) {
  ASSERT_TRUE(RegisterOwn());
  Own::allocated = 0;
  Own::freed = 0;
  Module* module = Find("Own")->CreateModule("a");
  EXPECT_EQ(module->name(), "a");
  EXPECT_EQ(module->module_builder(), Find("Own"));
  EXPECT_EQ(Own::allocated, 1);
  delete module;
  EXPECT_EQ(Own::freed, 1);
  EXPECT_TRUE(ModuleBuilder::DeregisterModuleClass("Own"));
}

class CommandTest : public testing::Test {
 protected:
  CommandResponse Run(const std::string& cmd,
                      const google::protobuf::Any& arg = {}) {
    return Find("Probe")->RunCommand(module_.get(), cmd, arg);
  }

  std::unique_ptr<Module> module_{Find("Probe")->CreateModule("probe")};
};

TEST_F(CommandTest, GetsItsArgument) {
  bess::pb::Error arg;
  arg.set_code(5);
  arg.set_errmsg("five");
  google::protobuf::Any any;
  any.PackFrom(arg);
  bess::pb::Error reply;
  ASSERT_TRUE(Run("echo", any).data().UnpackTo(&reply));
  EXPECT_EQ(reply.code(), 5);
  EXPECT_EQ(reply.errmsg(), "five");
}

TEST_F(CommandTest, GetsADefaultArgumentForAnythingElse) {
  google::protobuf::Any other;
  other.PackFrom(bess::pb::EmptyArg());
  google::protobuf::Any broken;
  broken.set_type_url("type.googleapis.com/bess.pb.Error");
  broken.set_value("\xff\xff\xff");
  google::protobuf::Any cut = broken;
  cut.set_value(
      "\x08\x05\x12\x04"
      "fi");  // code 5, and half of a text
  for (const auto& any : {google::protobuf::Any(), other, broken, cut}) {
    const CommandResponse response = Run("echo", any);
    EXPECT_EQ(response.error().code(), 0);
    bess::pb::Error reply;
    ASSERT_TRUE(response.data().UnpackTo(&reply));
    EXPECT_EQ(reply.ByteSizeLong(), 0u);
  }
}

TEST_F(CommandTest, AnUnknownOneSaysSo) {
  const CommandResponse response = Run("dance");
  EXPECT_EQ(response.error().code(), ENOTSUP);
  EXPECT_EQ(response.error().errmsg(),
            "module class 'Probe' has no command 'dance'");
}

TEST_F(CommandTest, ItsNameIsTheWholeName) {
  for (const char* cmd : {"saf", "safely", "Safe", ""}) {
    EXPECT_EQ(Run(cmd).error().code(), ENOTSUP) << cmd;
  }
}

TEST_F(CommandTest, WhatItThrowsPassesThrough) {
  EXPECT_THROW(Run("throw"), std::runtime_error);
}

TEST_F(CommandTest, InitRuns) {
  const auto response =
      Find("Probe")->RunInit(module_.get(), google::protobuf::Any());
  EXPECT_EQ(response.error().code(), 0);
  EXPECT_EQ(module_->tasks().size(), 1u);
}

}  // namespace
