// SPDX-License-Identifier: BSD-3-Clause
// The real plug-in, loaded, used and unloaded as a switch does it.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "modules/source.h"
#include "openflow.pb.h"
#include "plugin.h"
#include "probe.h"

namespace {

using testing::HasSubstr;

constexpr gate_idx_t kOutputGate = 7;

google::protobuf::Any Pack(const google::protobuf::Message& message) {
  google::protobuf::Any any;
  any.PackFrom(message);
  return any;
}

// A UDP packet over IPv4 without payload.
std::string UdpFrame() {
  std::string frame(60, '\0');
  frame[12] = 0x08;  // IPv4
  frame[14] = 0x45;
  frame[17] = 28;  // total length
  frame[22] = 64;  // TTL
  frame[23] = 17;  // UDP
  return frame;
}

class OpenFlowPluginTest : public HostTest {
 protected:
  static void Run(const std::string& cmd,
                  const google::protobuf::Message& arg) {
    const auto response = bess::RunModuleCommand("switch", cmd, Pack(arg));
    EXPECT_EQ(response.error().errmsg(), "") << cmd;
  }

  // Adds or replaces a flow that sends everything out of kOutputGate. What it
  // replaces waits for a grace period.
  static void UpdateFlow(uint32_t id) {
    quil::pb::OpenFlowUpdateFlowsArg update;
    auto* flow = update.add_adds();
    flow->set_flowid(id);
    flow->set_priority(2);
    flow->mutable_action()->mutable_fields()->set_setoutputport(true);
    flow->mutable_action()->mutable_values()->add_ogate(kOutputGate);
    Run("updateFlows", update);
  }
};

TEST_F(OpenFlowPluginTest, IsUsedUnloadedAndUsedAgain) {
  for (int round = 0; round < 3; round++) {
    ASSERT_EQ(bess::LoadPlugin(OPENFLOW_PLUGIN), "");
    const ModuleBuilder& builder =
        ModuleBuilder::all_module_builders().at("OpenFlow");
    EXPECT_EQ(builder.help_text(), "OpenFlow packet processing");
    EXPECT_EQ(builder.NumIGates(), 8192);
    EXPECT_EQ(builder.NumOGates(), 8192);

    Module* module = bess::CreateModule("OpenFlow", "switch").module;
    ASSERT_NE(module, nullptr);
    EXPECT_EQ(module->max_allowed_workers(), 16);
    auto* source =
        static_cast<Source*>(bess::CreateModule("Source", "in").module);
    Sink* sink = MakeSink("out");
    Connect(source, 0, module, 0);
    Connect(module, kOutputGate, sink, 0);
    Run("setAclIds", quil::pb::OpenFlowAclArg());
    for (uint32_t id = 0; id < 20; id++) {
      UpdateFlow(id % 5);
    }

    {
      bess::InlineWorker worker(0);
      for (int i = 0; i < 40; i++) {
        ASSERT_TRUE(source->Push(MakePacket(UdpFrame())));
      }
      Task* task = source->tasks()[0].get();
      worker.Run(task);
      worker.Run(task);
      EXPECT_EQ(worker.context()->silent_drops, 40u);  // the originals
    }
    EXPECT_EQ(module->deadends(0), 40u);
    EXPECT_EQ(Texts(sink->Take()), std::vector<std::string>(40, UdpFrame()));

    EXPECT_THAT(bess::UnloadPlugin(OPENFLOW_PLUGIN),
                HasSubstr("is in use by module switch"));
    for (const char* name : {"in", "switch", "out"}) {
      EXPECT_EQ(bess::DestroyModule(name).error().errmsg(), "");
    }
    ASSERT_EQ(bess::UnloadPlugin(OPENFLOW_PLUGIN), "");
    EXPECT_EQ(ModuleBuilder::all_module_builders().count("OpenFlow"), 0u);
    EXPECT_EQ(dlopen(OPENFLOW_PLUGIN, RTLD_NOW | RTLD_NOLOAD), nullptr);
  }
}

}  // namespace
