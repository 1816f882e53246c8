// SPDX-License-Identifier: BSD-3-Clause
//
// What is told of several workers, and of modules with several gates.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <utility>

#include "graph.h"
#include "module_builder.h"
#include "switch/control/host_report.h"
#include "tests/switch/live_bench.h"
#include "worker.h"

namespace ofswitch {
namespace {

using namespace std::string_literals;

class Crossing final : public Module {
 public:
  CommandResponse Init(const bess::pb::EmptyArg&) { return CommandSuccess(); }
};

[[maybe_unused]] const bool registered = ModuleBuilder::RegisterModuleClass(
    [] { return new Crossing; }, "Crossing", "crossing",
    "is entered and left by two gates", 2, 2, {},
    MODULE_INIT_FUNC(&Crossing::Init));

TEST(HostWorkers, AreToldApart) {
  LiveBench bench({.workers = 2});
  EXPECT_TRUE(listWorkers().workers(1).running());
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  Worker::PauseAll();
  // Of three ports the first worker has two.
  ASSERT_NE(Worker::Runs(0), Worker::Runs(1));
  const bess::pb::ListWorkersResponse reply = listWorkers();
  ASSERT_EQ(reply.workers_size(), 2);
  for (int wid = 0; wid < 2; wid++) {
    EXPECT_EQ(reply.workers(wid).worker(), static_cast<uint32_t>(wid));
    EXPECT_EQ(reply.workers(wid).task_runs(), Worker::Runs(wid));
    EXPECT_FALSE(reply.workers(wid).running());
  }
  EXPECT_EQ(Worker::ResumeAll(), "");
}

TEST(HostGates, AreToldByTheirNumbers) {
  LiveBench bench({});
  for (const char* name : {"one", "two"}) {
    EXPECT_EQ(bess::CreateModule("Crossing", name, {}).response.error().code(),
              0);
  }
  EXPECT_EQ(bess::ConnectModules("one", 0, "two", 1).error().code(), 0);
  bess::pb::GetModuleRequest request;
  request.set_name("two");
  const bess::pb::GetModuleResponse two = getModule(request);
  ASSERT_EQ(two.input_gates_size(), 1);
  EXPECT_EQ(two.input_gates(0).gate(), 1u);
  EXPECT_EQ(two.input_gates(0).from(0).output_gate(), 0u);
  request.set_name("one");
  const bess::pb::GetModuleResponse one = getModule(request);
  ASSERT_EQ(one.output_gates_size(), 1);
  EXPECT_EQ(one.output_gates(0).gate(), 0u);
  EXPECT_EQ(one.output_gates(0).input_gate(), 1u);
  for (const char* name : {"one", "two"}) bess::DestroyModule(name);
}

// A port's gate has its number, and there may be none in between.
TEST(HostGates, AreToldWithGapsBetweenThem) {
  SwitchConfig config = LiveBench({})->config();
  config.ports = {{1, "one", "net_null1", 1, 0},
                  {3, "three", "net_null3", 1, 0}};
  config.flowFiles.clear();
  LiveSwitch live(config);
  live.start();
  bess::pb::GetModuleRequest request;
  request.set_name("openflow");
  const bess::pb::GetModuleResponse reply = getModule(request);
  ASSERT_EQ(reply.output_gates_size(), 3);
  const auto lead = [&](int i) {
    return std::pair(reply.output_gates(i).gate(),
                     reply.output_gates(i).to_module());
  };
  EXPECT_EQ(lead(0), std::pair(0u, "controller"s));
  EXPECT_EQ(lead(1), std::pair(1u, "one_out"s));
  EXPECT_EQ(lead(2), std::pair(3u, "three_out"s));
}

}  // namespace
}  // namespace ofswitch
