// SPDX-License-Identifier: BSD-3-Clause
#include "switch/control/host_service.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "openflow.pb.h"
#include "packet_pool.h"
#include "ports/port.h"
#include "tests/control_door/control_bench.h"
#include "tests/support/frame.h"

namespace ofswitch {
namespace {

using openflow_test::Frame;
using openflow_test::ip4;
using testing::Contains;
using testing::ElementsAre;
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

TEST_F(HostServiceTest, TellsOfClassesTheirGatesAndCommands) {
  std::map<std::string, bess::pb::ListModuleClassesResponse::Class> classes;
  const auto reply = call(&Stub::ListModuleClasses);
  for (const auto& one : reply.classes()) classes[one.name()] = one;
  EXPECT_EQ(classes["PortIn"].input_gates(), 0);
  EXPECT_EQ(classes["PortIn"].output_gates(), 1);
  EXPECT_EQ(classes["PortIn"].help(),
            "receives packets from one queue of a port");
  EXPECT_EQ(classes["PortIn"].plugin(), "");
  EXPECT_EQ(classes["PortOut"].input_gates(), 1);
  EXPECT_EQ(classes["PortOut"].output_gates(), 0);
  EXPECT_EQ(classes["CaptureSink"].commands_size(), 0);
  std::vector<std::string> commands;
  for (const auto& one : classes["OpenFlow"].commands()) {
    commands.push_back(one.name() + " " + one.arg_type() +
                       (one.thread_safe() ? "" : " alone"));
  }
  EXPECT_THAT(commands, ElementsAre("updateFlows OpenFlowUpdateFlowsArg",
                                    "setAclIds OpenFlowAclArg",
                                    "getStats OpenFlowGetStatsArg"));
}

TEST_F(HostServiceTest, TellsWhereGatesLead) {
  bess::pb::GetModuleRequest request;
  request.set_name("port3_out");
  const auto out = call(&Stub::GetModule, request);
  EXPECT_EQ(out.module().name(), "port3_out");
  EXPECT_EQ(out.module().description(), "port3");
  EXPECT_EQ(out.output_gates_size(), 0);
  ASSERT_EQ(out.input_gates_size(), 1);
  EXPECT_EQ(out.input_gates(0).gate(), 0);
  ASSERT_EQ(out.input_gates(0).from_size(), 1);
  EXPECT_EQ(out.input_gates(0).from(0).module(), "openflow");
  EXPECT_EQ(out.input_gates(0).from(0).output_gate(), 3);

  request.set_name("openflow");
  const auto tables = call(&Stub::GetModule, request);
  std::vector<std::string> to;
  for (const auto& gate : tables.output_gates()) {
    to.push_back(gate.to_module());
    EXPECT_EQ(gate.input_gate(), 0);
  }
  EXPECT_THAT(to,
              ElementsAre("controller", "port1_out", "port2_out", "port3_out"));
  std::vector<std::string> from;
  for (const auto& one : tables.input_gates(0).from()) {
    from.push_back(one.module());
    EXPECT_EQ(one.output_gate(), 0);
  }
  EXPECT_THAT(from, ElementsAre("port1_in0", "port2_in0", "port3_in0"));
  EXPECT_THAT(tables.workers(), ElementsAre(0));
}

TEST_F(HostServiceTest, TellsAllOfAPort) {
  ASSERT_EQ(bess::OpenPort("spare", {.device = "net_null7",
                                     .number = 77,
                                     .rx_queues = 3,
                                     .tx_queues = 2}),
            "");
  const auto reply = call(&Stub::ListPorts);
  const auto& ports = reply.ports();
  const bess::Port* spare = bess::FindPort("spare");
  const auto told = std::ranges::find(
      ports, "spare", [](const auto& one) { return one.name(); });
  ASSERT_NE(told, ports.end());
  EXPECT_EQ(told->number(), 77);
  EXPECT_EQ(told->device(), "net_null7");
  EXPECT_EQ(told->driver(), "net_null");
  EXPECT_EQ(told->mac(), spare->mac());
  EXPECT_EQ(told->mac().size(), 17);
  EXPECT_EQ(told->mtu(), 1500);
  EXPECT_EQ(told->rx_queues(), 3);
  EXPECT_EQ(told->tx_queues(), 2);
  EXPECT_TRUE(told->link_up());
  EXPECT_EQ(bess::ClosePort("spare"), "");
}

std::string countersText(const bess::pb::StatisticsResponse::Port& port) {
  std::string text;
  for (const auto& counter : port.counters()) {
    if (counter.value() == 0) continue;
    text += fmt::format("{}={} ", counter.name(), counter.value());
  }
  return text;
}

TEST_F(HostServiceTest, CountsUnderTheRightNames) {
  const Frame frame =
      Frame::eth().ipv4(ip4("10.0.0.1"), ip4("10.0.0.2")).tcp(7, 80);
  const size_t size = openflow_test::Bytes(frame).size();
  control_.bench().receive(1, frame, 4);
  control_.bench().receive(1, openflow_test::Bytes(10));    // no header
  control_.bench().receive(1, openflow_test::Bytes(1600));  // above the MTU
  control_.bench().settled();
  bess::Packet* held = bess::PacketPool::Default()->Alloc(60);

  const auto statistics = call(&Stub::GetStatistics);
  ASSERT_EQ(statistics.ports_size(), 3);
  EXPECT_EQ(statistics.ports(0).number(), 1);
  EXPECT_EQ(statistics.ports(0).name(), "port1");
  EXPECT_EQ(countersText(statistics.ports(0)),
            fmt::format("rx_received=6 rx_packets=6 rx_bytes={} ",
                        4 * size + 10 + 1600));
  EXPECT_EQ(countersText(statistics.ports(1)), "");
  EXPECT_EQ(statistics.ports(2).number(), 3);
  EXPECT_EQ(countersText(statistics.ports(2)),
            fmt::format("tx_entered=6 tx_packets=4 tx_bytes={} "
                        "tx_frame_too_long=1 tx_frame_too_short=1 ",
                        4 * size));
  EXPECT_EQ(statistics.ports(2).counters_size(),
            6 + static_cast<int>(bess::kDropCauses.size()));
  std::string ended;
  for (const auto& module : statistics.modules()) {
    if (module.ended_packets() == 0) continue;
    ended += fmt::format("{}={} ", module.name(), module.ended_packets());
  }
  EXPECT_EQ(ended, "openflow=6 port3_out=2 ");
  EXPECT_EQ(statistics.packet_buffers(), 16383);
  EXPECT_EQ(statistics.free_packet_buffers(), 16382);
  bess::Packet::Free(held);
}

TEST_F(HostServiceTest, RunsACommandThatOnlyReads) {
  quil::pb::OpenFlowGetStatsArg argument;
  const auto reply = command("openflow", "getStats", any(argument));
  ASSERT_EQ(reply.error().code(), 0) << reply.error().errmsg();
  quil::pb::OpenFlowGetStatsRespArg stats;
  ASSERT_TRUE(reply.data().UnpackTo(&stats));
  EXPECT_EQ(stats.numflows(), 2);  // one of the operator's, one of the switch's
}

// They are taken as long as a change of flows.
TEST_F(HostServiceTest, TakesLongCommands) {
  const auto reply = command("openflow", std::string(100'000, 'x'), {});
  EXPECT_NE(reply.error().code(), 0);
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
  unknown.set_type_url("type.googleapis.com/quil.pb.NoOpenFlowGetStatsArg");
  EXPECT_EQ(command("openflow", "getStats", unknown).error().errmsg(),
            "arg: is of type \"quil.pb.NoOpenFlowGetStatsArg\", must be "
            "\"OpenFlowGetStatsArg\"");
  EXPECT_EQ(command("openflow", "flush", {}).error().code(), ENOTSUP);
  EXPECT_EQ(command("nobody", "getStats", any(argument)).error().code(),
            ENOENT);
}

}  // namespace
}  // namespace ofswitch
