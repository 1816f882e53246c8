// SPDX-License-Identifier: BSD-3-Clause
//
// The plug-in as the host sees it: loaded, used by commands, unloaded, again.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rte_acl.h>

#include <filesystem>
#include <string>
#include <vector>

#include "eal.h"
#include "graph.h"
#include "module.h"
#include "openflow.pb.h"
#include "platform/ringlog/ringlog.h"
#include "plugin.h"

namespace {

using testing::ElementsAre;

const ModuleBuilder* find() {
  const auto& builders = ModuleBuilder::all_module_builders();
  const auto it = builders.find("OpenFlow");
  return it == builders.end() ? nullptr : &it->second;
}

bool inMemory() {
  void* handle = dlopen(OPENFLOW_PLUGIN, RTLD_NOW | RTLD_NOLOAD);
  if (handle != nullptr) {
    dlclose(handle);
  }
  return handle != nullptr;
}

CommandResponse run(const std::string& module, const std::string& command,
                    const google::protobuf::Message& arg) {
  google::protobuf::Any any;
  any.PackFrom(arg);
  return bess::RunModuleCommand(module, command, any);
}

// Adds flow `flowId` to table 2, whose slots are bound.
void addFlow(const std::string& module, uint32_t flowId) {
  quil::pb::OpenFlowUpdateFlowsArg update;
  update.set_tableid(2);
  quil::pb::OpenFlowAddFlow* flow = update.add_adds();
  flow->set_flowid(flowId);
  flow->set_priority(1);
  EXPECT_EQ(run(module, "updateFlows", update).error().code(), 0);
}

uint64_t numFlows(const std::string& module) {
  quil::pb::OpenFlowGetStatsArg which;
  which.set_tableid(2);
  const CommandResponse response = run(module, "getStats", which);
  quil::pb::OpenFlowGetStatsRespArg stats;
  EXPECT_TRUE(response.data().UnpackTo(&stats));
  return stats.numflows();
}

class PluginCommands : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    bess::EalOptions options;
    options.memory_mb = 128;
    ASSERT_EQ(bess::InitEal(options), "");
  }
};

TEST_F(PluginCommands, LoadingListsTheClassUnloadingRemovesIt) {
  for (int round = 0; round < 2; round++) {
    EXPECT_EQ(find(), nullptr);
    ASSERT_EQ(bess::LoadPlugin(OPENFLOW_PLUGIN), "");
    const auto plugins = bess::ListPlugins();
    ASSERT_EQ(plugins.size(), 1u);
    EXPECT_EQ(plugins[0].path, std::filesystem::canonical(OPENFLOW_PLUGIN));
    EXPECT_THAT(plugins[0].classes, ElementsAre("OpenFlow"));

    ASSERT_NE(find(), nullptr);
    EXPECT_EQ(find()->name_template(), "OpenFlow");
    EXPECT_EQ(find()->help_text(), "OpenFlow packet processing");
    EXPECT_EQ(find()->NumIGates(), 8192);
    EXPECT_EQ(find()->NumOGates(), 8192);
    std::vector<std::string> commands;
    for (const Command& command : find()->cmds()) {
      commands.push_back(command.cmd + "(" + command.arg_type + ") " +
                         std::to_string(command.mt_safe));
    }
    EXPECT_THAT(commands, ElementsAre("updateFlows(OpenFlowUpdateFlowsArg) 1",
                                      "setAclIds(OpenFlowAclArg) 1",
                                      "getStats(OpenFlowGetStatsArg) 1"));

    ASSERT_EQ(bess::UnloadPlugin(OPENFLOW_PLUGIN), "");
    EXPECT_EQ(find(), nullptr);
    EXPECT_FALSE(inMemory());
  }
}

// Every update retires a classifier, whose release is code of the plug-in's.
TEST_F(PluginCommands, UnloadingWaitsForRetiredClassifiers) {
  ASSERT_EQ(bess::LoadPlugin(OPENFLOW_PLUGIN), "");
  ASSERT_EQ(bess::CreateModule("OpenFlow", "of").response.error().code(), 0);
  quil::pb::OpenFlowAclArg binding;
  binding.set_tableid(2);
  EXPECT_EQ(run("of", "setAclIds", binding).error().code(), 0);
  for (uint32_t i = 0; i < 10; i++) {
    addFlow("of", i % 5);
  }
  EXPECT_EQ(numFlows("of"), 5u);
  EXPECT_NE(rte_acl_find_existing("table2-10"), nullptr);
  ASSERT_EQ(bess::DestroyModule("of").error().code(), 0);
  ASSERT_EQ(bess::UnloadPlugin(OPENFLOW_PLUGIN), "");
  for (int generation = 1; generation <= 10; generation++) {
    const std::string name = "table2-" + std::to_string(generation);
    EXPECT_EQ(rte_acl_find_existing(name.c_str()), nullptr) << name;
  }
}

TEST_F(PluginCommands, TracesOutliveThePlugin) {
  const uint64_t mark = Ringlog::Ring::instance().readSince(0).next;
  ASSERT_EQ(bess::LoadPlugin(OPENFLOW_PLUGIN), "");
  ASSERT_EQ(bess::CreateModule("OpenFlow", "of").response.error().code(), 0);
  ASSERT_EQ(bess::DestroyModule("of").error().code(), 0);
  ASSERT_EQ(bess::UnloadPlugin(OPENFLOW_PLUGIN), "");
  ASSERT_FALSE(inMemory());
  std::vector<std::string> texts;
  for (const auto& entry : Ringlog::Ring::instance().readSince(mark).entries) {
    texts.push_back(entry.facility + " " + entry.text);
  }
  EXPECT_THAT(texts,
              ElementsAre("OpenFlow CommandResponse OpenFlow::Init(const "
                          "bess::pb::EmptyArg&): ",
                          "OpenFlow virtual void OpenFlow::DeInit(): "));
}

TEST_F(PluginCommands, InstancesAreNamedByTheTemplate) {
  ASSERT_EQ(bess::LoadPlugin(OPENFLOW_PLUGIN), "");
  const bess::CreateResult made = bess::CreateModule("OpenFlow");
  ASSERT_NE(made.module, nullptr);
  EXPECT_THAT(made.module->name(), testing::StartsWith("OpenFlow"));
  EXPECT_EQ(bess::DestroyModule(made.module->name()).error().code(), 0);
  ASSERT_EQ(bess::UnloadPlugin(OPENFLOW_PLUGIN), "");
}

// For tools that build rules or keys.
TEST_F(PluginCommands, TheFieldTablesAreExported) {
  void* plugin = dlopen(OPENFLOW_PLUGIN, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(plugin, nullptr) << dlerror();
  const auto* ipv4 =
      static_cast<const rte_acl_field_def*>(dlsym(plugin, "of_flow_defs"));
  const auto* ipv6 =
      static_cast<const rte_acl_field_def*>(dlsym(plugin, "of_flow_defs_ipv6"));
  ASSERT_NE(ipv4, nullptr);
  ASSERT_NE(ipv6, nullptr);
  EXPECT_EQ(ipv4[20].offset, 49u);
  EXPECT_EQ(ipv6[25].offset, 69u);
  dlclose(plugin);
  EXPECT_FALSE(inMemory());
}

}  // namespace
