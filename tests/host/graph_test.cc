// SPDX-License-Identifier: BSD-3-Clause
#include "graph.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>

#include "control.h"
#include "probe.h"

namespace {

using testing::ElementsAre;

class GraphTest : public HostTest {};

TEST_F(GraphTest, MakesFindsAndDestroysInstances) {
  const auto made = bess::CreateModule("Probe", "a");
  EXPECT_EQ(made.response.error().code(), 0);
  ASSERT_NE(made.module, nullptr);
  EXPECT_EQ(made.module->name(), "a");
  EXPECT_EQ(made.module->GetDesc(), "") << "which it has not said";
  EXPECT_EQ(bess::FindModule("a"), made.module);
  EXPECT_EQ(bess::FindModule("b"), nullptr);
  EXPECT_THAT(bess::ListModules(), ElementsAre(made.module));
  EXPECT_EQ(bess::DestroyModule("a").error().code(), 0);
  EXPECT_EQ(bess::FindModule("a"), nullptr);
  EXPECT_THAT(Probe::log(), ElementsAre("Init a", "DeInit a", "delete a"));
}

TEST_F(GraphTest, RunsModulesOnTheCommandThread) {
  EXPECT_THAT(bess::ListModules(), ElementsAre());
  bess::ControlThread::Instance().Run([] {
    // From the thread itself, too.
    EXPECT_EQ(bess::CreateModule("Probe", "a").response.error().code(), 0);
    EXPECT_EQ(bess::RunModuleCommand("a", "safe").error().code(), 0);
  });
}

TEST_F(GraphTest, NamesComeFromTheTemplate) {
  EXPECT_EQ(bess::CreateModule("Probe").module->name(), "probe0");
  EXPECT_EQ(bess::CreateModule("Probe").module->name(), "probe1");
  bess::DestroyModule("probe0");
  EXPECT_EQ(bess::CreateModule("Probe").module->name(), "probe0");
}

TEST_F(GraphTest, UnknownAndTakenNamesAreRefused) {
  const auto unknown = bess::CreateModule("Nothing", "a");
  EXPECT_EQ(unknown.response.error().code(), ENOENT);
  EXPECT_EQ(unknown.response.error().errmsg(),
            "there is no module class 'Nothing'");
  EXPECT_EQ(unknown.module, nullptr);
  MakeProbe("a");
  const auto taken = bess::CreateModule("Probe", "a");
  EXPECT_EQ(taken.response.error().code(), EEXIST);
  EXPECT_EQ(taken.response.error().errmsg(), "there is a module 'a' already");
  EXPECT_EQ(taken.module, nullptr);
  for (const CommandResponse& response :
       {bess::DestroyModule("b"), bess::RunModuleCommand("b", "safe"),
        bess::ConnectModules("a", 0, "b", 0),
        bess::ConnectModules("b", 0, "a", 0),
        bess::DisconnectModules("b", 0)}) {
    EXPECT_EQ(response.error().code(), ENOENT);
    EXPECT_EQ(response.error().errmsg(), "there is no module 'b'");
  }
}

TEST_F(GraphTest, AFailedInitDestroysWithoutDeInit) {
  Probe::next_init = Probe::InitOutcome::kFail;
  const auto made = bess::CreateModule("Probe", "a");
  EXPECT_EQ(made.response.error().code(), EDOM);
  EXPECT_EQ(made.response.error().errmsg(), "told to fail");
  EXPECT_EQ(made.module, nullptr);
  EXPECT_EQ(bess::FindModule("a"), nullptr);
  EXPECT_THAT(Probe::log(), ElementsAre("Init a", "delete a"));
}

TEST_F(GraphTest, WhatInitThrowsIsAFailure) {
  Probe::next_init = Probe::InitOutcome::kThrow;
  const auto made = bess::CreateModule("Probe", "a");
  EXPECT_EQ(made.response.error().code(), ENOTRECOVERABLE);
  EXPECT_EQ(made.response.error().errmsg(), "failed to construct");
  EXPECT_EQ(made.module, nullptr);
  EXPECT_EQ(bess::FindModule("a"), nullptr);
  EXPECT_THAT(Probe::log(), ElementsAre("Init a", "delete a"));
}

TEST_F(GraphTest, WhatACommandThrowsIsAFailure) {
  MakeProbe("a");
  const auto response = bess::RunModuleCommand("a", "throw");
  EXPECT_EQ(response.error().code(), ENOTRECOVERABLE);
  EXPECT_EQ(response.error().errmsg(), "out of a command");
  EXPECT_NE(bess::FindModule("a"), nullptr);
}

TEST_F(GraphTest, WhatDeInitThrowsIsAFailureAndTheInstanceIsGone) {
  MakeProbe("a")->throw_in_deinit = true;
  const auto response = bess::DestroyModule("a");
  EXPECT_EQ(response.error().code(), ENOTRECOVERABLE);
  EXPECT_EQ(response.error().errmsg(), "failed to destruct object");
  EXPECT_EQ(bess::FindModule("a"), nullptr);
  EXPECT_THAT(Probe::log(), ElementsAre("Init a", "DeInit a", "delete a"));
}

TEST_F(GraphTest, LinksGates) {
  Probe* a = MakeProbe("a");
  Probe* b = MakeProbe("b");
  EXPECT_EQ(bess::ConnectModules("a", 3, "b", 4).error().code(), 0);
  ASSERT_EQ(a->ogates().size(), 4u);
  EXPECT_EQ(a->ogates()[0], nullptr);
  ASSERT_NE(a->ogates()[3], nullptr);
  EXPECT_EQ(a->ogates()[3]->next(), b);
  EXPECT_EQ(a->ogates()[3]->gate_idx(), 3);
  EXPECT_EQ(a->ogates()[3]->igate(), b->igates()[4]);
  EXPECT_EQ(b->igates()[4]->gate_idx(), 4);
  EXPECT_THAT(b->igates()[4]->ogates_upstream(), ElementsAre(a->ogates()[3]));

  const auto again = bess::ConnectModules("a", 3, "b", 5);
  EXPECT_EQ(again.error().code(), EBUSY);
  EXPECT_EQ(again.error().errmsg(), "output gate 3 of module 'a' is linked");

  EXPECT_EQ(bess::DisconnectModules("a", 3).error().code(), 0);
  EXPECT_EQ(a->ogates()[3], nullptr);
  EXPECT_EQ(b->igates()[4], nullptr);
  const auto gone = bess::DisconnectModules("a", 3);
  EXPECT_EQ(gone.error().code(), ENOENT);
  EXPECT_EQ(gone.error().errmsg(), "output gate 3 of module 'a' has no link");
  EXPECT_EQ(bess::DisconnectModules("a", 8191).error().code(), ENOENT);
}

TEST_F(GraphTest, ModulesTellWhyTheyDoNotLink) {
  Probe* a = MakeProbe("a");
  Sink* sink = MakeSink("sink");
  EXPECT_EQ(a->DisconnectGate(0), -ENOENT);
  EXPECT_EQ(a->ConnectGate(8192, sink, 0), -EINVAL);
  EXPECT_EQ(a->ConnectGate(0, sink, 8192), -EINVAL);
  EXPECT_EQ(sink->ConnectGate(0, a, 0), -EINVAL);
  EXPECT_EQ(a->ConnectGate(2, sink, 0), 0);
  EXPECT_EQ(a->ConnectGate(2, sink, 1), -EBUSY);
  EXPECT_EQ(a->DisconnectGate(1), -ENOENT);
  EXPECT_EQ(a->DisconnectGate(3), -ENOENT);
  EXPECT_EQ(a->DisconnectGate(2), 0);
  EXPECT_EQ(a->DisconnectGate(2), -ENOENT);
}

TEST_F(GraphTest, AnInputGateStaysWhileALinkLeadsToIt) {
  Probe* a = MakeProbe("a");
  Probe* b = MakeProbe("b");
  Connect(a, 0, b, 0);
  Connect(a, 1, b, 0);
  bess::DisconnectModules("a", 0);
  ASSERT_NE(b->igates()[0], nullptr);
  EXPECT_THAT(b->igates()[0]->ogates_upstream(), ElementsAre(a->ogates()[1]));
  bess::DisconnectModules("a", 1);
  EXPECT_EQ(b->igates()[0], nullptr);
}

TEST_F(GraphTest, GatesBeyondTheClasssAreRefused) {
  MakeProbe("a");
  MakeSink("sink");
  EXPECT_EQ(bess::ConnectModules("a", 8192, "sink", 0).error().code(), EINVAL);
  EXPECT_EQ(bess::ConnectModules("a", 0, "sink", 8192).error().code(), EINVAL);
  const auto response = bess::ConnectModules("sink", 1, "a", 2);
  EXPECT_EQ(response.error().code(), EINVAL);
  EXPECT_EQ(response.error().errmsg(),
            "'sink' has output gates below 0 and 'a' input gates below 8192: "
            "cannot link 1 to 2");
}

TEST_F(GraphTest, DestroyingUnlinksBothSides) {
  Probe* a = MakeProbe("a");
  Probe* b = MakeProbe("b");
  Probe* c = MakeProbe("c");
  Connect(a, 0, b, 0);
  Connect(a, 1, b, 0);
  Connect(b, 0, c, 0);
  Connect(b, 1, b, 1);
  bess::DestroyModule("b");
  EXPECT_EQ(a->ogates()[0], nullptr);
  EXPECT_EQ(a->ogates()[1], nullptr);
  EXPECT_EQ(c->igates()[0], nullptr);
}

TEST_F(GraphTest, DestroysAllFromTheLastToTheFirst) {
  MakeProbe("a");
  MakeProbe("b")->throw_in_deinit = true;
  MakeProbe("c");
  Probe::log().clear();
  const auto response = bess::DestroyAllModules();
  EXPECT_EQ(response.error().errmsg(), "failed to destruct object");
  EXPECT_THAT(Probe::log(), ElementsAre("DeInit c", "delete c", "DeInit b",
                                        "delete b", "DeInit a", "delete a"));
  EXPECT_THAT(bess::ListModules(), ElementsAre());
}

// Throws what is no exception of the standard library.
class Odd final : public Module {
 public:
  void DeInit() override { throw 5; }
};

TEST_F(GraphTest, AnythingMayBeThrown) {
  ASSERT_TRUE(ModuleBuilder::RegisterModuleClass(
      [] { return new Odd; }, "Odd", "odd", "", 0, 0, {},
      MODULE_INIT_FUNC(&Module::Init)));
  EXPECT_EQ(bess::CreateModule("Odd", "a").response.error().code(), 0);
  const auto response = bess::DestroyModule("a");
  EXPECT_EQ(response.error().code(), ENOTRECOVERABLE);
  EXPECT_EQ(response.error().errmsg(), "unknown exception");
  EXPECT_EQ(bess::FindModule("a"), nullptr);
  EXPECT_TRUE(ModuleBuilder::DeregisterModuleClass("Odd"));
}

// Says which one it was.
class Stubborn final : public Module {
 public:
  void DeInit() override { throw std::runtime_error("out of " + name()); }
};

TEST_F(GraphTest, OfSeveralFailuresTheFirstIsAnswered) {
  ASSERT_TRUE(ModuleBuilder::RegisterModuleClass(
      [] { return new Stubborn; }, "Stubborn", "stubborn", "", 0, 0, {},
      MODULE_INIT_FUNC(&Module::Init)));
  for (const char* name : {"a", "b", "c"}) {
    EXPECT_EQ(bess::CreateModule("Stubborn", name).response.error().code(), 0);
  }
  MakeProbe("d");
  EXPECT_EQ(bess::DestroyAllModules().error().errmsg(), "out of c");
  EXPECT_TRUE(ModuleBuilder::DeregisterModuleClass("Stubborn"));
}

}  // namespace
