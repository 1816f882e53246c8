// SPDX-License-Identifier: BSD-3-Clause
#include "switch/control/host_service.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "openflow.pb.h"
#include "tests/control_door/control_bench.h"
#include "tests/support/frame.h"

namespace ofswitch {
namespace {

using openflow_test::Frame;
using openflow_test::ip4;
using testing::Contains;
using testing::HasSubstr;
using testing::SizeIs;
using testing::UnorderedElementsAre;

class HostServiceTest : public testing::Test {
 protected:
  bess::pb::CommandResponse command(const std::string& module,
                                    const std::string& name,
                                    const google::protobuf::Any& arg) {
    bess::pb::ModuleCommandRequest request;
    request.set_module(module);
    request.set_command(name);
    *request.mutable_arg() = arg;
    grpc::ClientContext context;
    bess::pb::CommandResponse reply;
    const grpc::Status status =
        client_->ModuleCommand(&context, request, &reply);
    EXPECT_TRUE(status.ok()) << status.error_message();
    return reply;
  }

  static google::protobuf::Any any(const google::protobuf::Message& message) {
    google::protobuf::Any any;
    any.PackFrom(message);
    return any;
  }

  template <class Request, class Reply>
  Reply call(grpc::Status (bess::pb::Host::Stub::*method)(grpc::ClientContext*,
                                                          const Request&,
                                                          Reply*),
             const Request& request = {}) {
    grpc::ClientContext context;
    Reply reply;
    const grpc::Status status =
        (client_.get()->*method)(&context, request, &reply);
    EXPECT_TRUE(status.ok()) << status.error_message();
    return reply;
  }

  ControlBench control_{{.flows = "in_port=1,actions=output:3\n"}};
  std::unique_ptr<bess::pb::Host::Stub> client_ =
      bess::pb::Host::NewStub(control_.connect());
};

using Stub = bess::pb::Host::Stub;

TEST_F(HostServiceTest, TellsWhatTheHostConsistsOf) {
  const auto modules = call(&Stub::ListModules);
  std::vector<std::string> names;
  for (const auto& module : modules.modules()) {
    names.push_back(module.class_name() + " " + module.name());
  }
  EXPECT_THAT(names, Contains("OpenFlow openflow"));
  EXPECT_THAT(names, Contains(HasSubstr("PortIn ")));

  const auto plugins = call(&Stub::ListPlugins);
  ASSERT_EQ(plugins.plugins_size(), 1);
  EXPECT_THAT(plugins.plugins(0).path(), HasSubstr("OpenFlowModule.so"));
  ASSERT_EQ(plugins.plugins(0).classes_size(), 1);
  EXPECT_EQ(plugins.plugins(0).classes(0), "OpenFlow");

  const auto classes = call(&Stub::ListModuleClasses);
  bool found = false;
  for (const auto& one : classes.classes()) {
    if (one.name() != "OpenFlow") continue;
    found = true;
    EXPECT_EQ(one.plugin(), plugins.plugins(0).path());
    ASSERT_EQ(one.commands_size(), 3);
    EXPECT_EQ(one.commands(2).name(), "getStats");
    EXPECT_EQ(one.commands(2).arg_type(), "OpenFlowGetStatsArg");
    EXPECT_TRUE(one.commands(2).thread_safe());
  }
  EXPECT_TRUE(found);

  const auto ports = call(&Stub::ListPorts);
  ASSERT_EQ(ports.ports_size(), 3);
  EXPECT_EQ(ports.ports(0).number(), 1);
  EXPECT_EQ(ports.ports(0).device(), "net_ring1");
  EXPECT_EQ(ports.ports(0).driver(), "net_ring");
  EXPECT_EQ(ports.ports(0).rx_queues(), 1);
  EXPECT_EQ(ports.ports(2).driver(), "net_pcap");

  const auto workers = call(&Stub::ListWorkers);
  ASSERT_EQ(workers.workers_size(), 1);
  EXPECT_TRUE(workers.workers(0).running());
  EXPECT_GT(workers.workers(0).task_runs(), 0);
  EXPECT_THAT(workers.workers(0).modules(), Contains("openflow"));
}

TEST_F(HostServiceTest, TellsOfAModuleAndItsGates) {
  control_.bench().receive(
      1, Frame::eth().ipv4(ip4("10.0.0.1"), ip4("10.0.0.2")).tcp(7, 80), 4);
  control_.bench().receive(
      2, Frame::eth().ipv4(ip4("10.0.0.1"), ip4("10.0.0.2")).tcp(7, 80), 3);
  control_.bench().settled();
  bess::pb::GetModuleRequest request;
  request.set_name("openflow");
  const auto reply = call(&Stub::GetModule, request);
  EXPECT_EQ(reply.error().code(), 0);
  EXPECT_EQ(reply.module().class_name(), "OpenFlow");
  ASSERT_EQ(reply.output_gates_size(), 4);
  EXPECT_EQ(reply.output_gates(0).gate(), 0);
  EXPECT_EQ(reply.output_gates(3).gate(), 3);
  EXPECT_EQ(reply.output_gates(3).packets(), 4);
  ASSERT_EQ(reply.input_gates_size(), 1);
  EXPECT_EQ(reply.input_gates(0).from_size(), 3);
  ASSERT_EQ(reply.workers_size(), 1);
  EXPECT_EQ(reply.ended_packets(), 7);  // what was sent are copies

  request.set_name("nobody");
  const auto none = call(&Stub::GetModule, request);
  EXPECT_EQ(none.error().code(), ENOENT);
  EXPECT_EQ(none.error().errmsg(), "there is no module 'nobody'");

  const auto statistics = call(&Stub::GetStatistics);
  ASSERT_EQ(statistics.ports_size(), 3);
  const auto& counters = statistics.ports(0).counters();
  EXPECT_EQ(counters[1].name(), "rx_packets");
  EXPECT_EQ(counters[1].value(), 4);
  EXPECT_EQ(statistics.packet_buffers(), 16383);
}

TEST_F(HostServiceTest, RunsACommandThatOnlyReads) {
  quil::pb::OpenFlowGetStatsArg argument;
  const auto reply = command("openflow", "getStats", any(argument));
  ASSERT_EQ(reply.error().code(), 0) << reply.error().errmsg();
  quil::pb::OpenFlowGetStatsRespArg stats;
  ASSERT_TRUE(reply.data().UnpackTo(&stats));
  EXPECT_EQ(stats.numflows(), 2);  // one of the operator's, one of the switch's
}

TEST_F(HostServiceTest, LeavesFlowsAndSlotsToTheSwitch) {
  quil::pb::OpenFlowUpdateFlowsArg update;
  update.add_adds()->set_flowid(1);
  auto reply = command("openflow", "updateFlows", any(update));
  EXPECT_EQ(reply.error().code(), EINVAL);
  EXPECT_EQ(reply.error().errmsg(),
            "updateFlows: the switch owns the flows of this module; change "
            "them by ofswitch.pb.Switch/ChangeFlows");
  quil::pb::OpenFlowAclArg slots;
  slots.set_tableid(32);
  reply = command("openflow", "setAclIds", any(slots));
  EXPECT_EQ(reply.error().code(), EINVAL);
  EXPECT_EQ(reply.error().errmsg(),
            "setAclIds: the switch owns the classifier slots of this module; "
            "they stay as they are");
  EXPECT_THAT(control_.dump(), SizeIs(1));
}

TEST_F(HostServiceTest, RefusesWrongArguments) {
  quil::pb::OpenFlowGetStatsArg argument;
  argument.set_tableid(32);
  EXPECT_EQ(command("openflow", "getStats", any(argument)).error().errmsg(),
            "tableId: 32 must be below 32");
  EXPECT_EQ(command("openflow", "getStats", any(quil::pb::OpenFlowAclArg()))
                .error()
                .errmsg(),
            "arg: is of type \"quil.pb.OpenFlowAclArg\", must be "
            "\"OpenFlowGetStatsArg\"");
  EXPECT_EQ(command("openflow", "getStats", {}).error().errmsg(),
            "arg: is of type \"\", must be \"OpenFlowGetStatsArg\"");
  google::protobuf::Any broken = any(argument);
  broken.set_value("\x08");
  EXPECT_EQ(command("openflow", "getStats", broken).error().errmsg(),
            "arg: the bytes of the request are no OpenFlowGetStatsArg");
  google::protobuf::Any unknown;
  unknown.set_type_url("type.googleapis.com/other.pb.OpenFlowGetStatsArg");
  EXPECT_EQ(command("openflow", "getStats", unknown).error().errmsg(),
            "arg: there is no type \"other.pb.OpenFlowGetStatsArg\"");
  EXPECT_EQ(command("openflow", "flush", {}).error().code(), ENOTSUP);
  EXPECT_EQ(command("nobody", "getStats", any(argument)).error().code(),
            ENOENT);
}

}  // namespace
}  // namespace ofswitch
