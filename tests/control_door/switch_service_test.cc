// SPDX-License-Identifier: BSD-3-Clause
#include "switch/control/switch_service.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <google/protobuf/util/message_differencer.h>
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "platform/twinlog/twinlog.h"
#include "tests/control_door/control_bench.h"
#include "tests/support/frame.h"
#include "tests/support/time_limit.h"

namespace ofswitch {
namespace {

using google::protobuf::util::MessageDifferencer;
using openflow_test::Frame;
using openflow_test::ip4;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

Frame tcpTo(uint16_t port) {
  return Frame::eth().ipv4(ip4("10.0.0.1"), ip4("10.0.0.2")).tcp(1000, port);
}

TEST(SwitchService, ChangesFlowsAndListsThem) {
  ControlBench control;
  const pb::FlowChangeReply reply = control.add(
      "in_port=1,tcp,tp_dst=80,actions=output:3\n"
      "table=3,priority=7,cookie=0x2a,actions=drop\n");
  EXPECT_EQ(reply.added(), 2);
  EXPECT_EQ(reply.builds_size(), 2);
  EXPECT_GT(reply.total_time_ns(), 0);
  control.bench().receive(1, tcpTo(80), 5);
  control.bench().settled();

  const std::vector<pb::FlowEntry> entries = control.dump();
  ASSERT_THAT(entries, SizeIs(2));
  EXPECT_EQ(entries[0].flow(),
            "table=0,priority=32768,in_port=1,tcp,tp_dst=80,actions=output:3");
  EXPECT_EQ(entries[0].n_packets(), 5);
  EXPECT_EQ(entries[0].origin(), "request:1");
  EXPECT_EQ(entries[1].cookie(), 0x2a);

  pb::FlowFilter filter;
  filter.set_text("table=3");
  ASSERT_THAT(control.dump(filter), SizeIs(1));
  filter.set_text("table=4");
  EXPECT_THAT(control.dump(filter), IsEmpty());
}

TEST(SwitchService, TellsProgressBeforeTheReply) {
  ControlBench control;
  pb::FlowChange change;
  change.set_operation(pb::FLOW_OPERATION_ADD);
  change.set_text("actions=drop\nipv6,actions=drop\ntable=1,actions=drop\n");
  change.set_progress(true);
  const std::vector<pb::FlowChangeEvent> events = control.change(change);
  ASSERT_GE(events.size(), 2);
  for (size_t i = 0; i + 1 < events.size(); i++) {
    ASSERT_TRUE(events[i].has_progress());
    EXPECT_EQ(events[i].progress().total(), 3);
  }
  ASSERT_TRUE(events.back().has_reply());
  EXPECT_EQ(events.back().reply().builds_size(), 3);
}

TEST(SwitchService, RefusesFlowsWithTheirLine) {
  ControlBench control;
  pb::FlowChange change;
  change.set_operation(pb::FLOW_OPERATION_ADD);
  change.set_text_name("new.txt");
  change.set_text("actions=drop\nnw_dts=10.0.0.1,actions=drop\n");
  const std::vector<pb::FlowChangeEvent> events = control.change(change);
  ASSERT_THAT(events, SizeIs(1));
  const pb::FlowChangeReply& reply = events[0].reply();
  EXPECT_FALSE(reply.applied());
  ASSERT_EQ(reply.refusals_size(), 1);
  EXPECT_EQ(reply.refusals(0).name(), "new.txt");
  EXPECT_EQ(reply.refusals(0).line(), 2);
  EXPECT_THAT(reply.refusals(0).reason(),
              HasSubstr("did you mean \"nw_dst\"?"));
  EXPECT_THAT(control.dump(), IsEmpty());
}

TEST(SwitchService, RefusesAFilterInOneLine) {
  ControlBench control;
  pb::FlowFilter filter;
  filter.set_text("tabel=3");
  grpc::Status status;
  EXPECT_THAT(control.dump(filter, &status), IsEmpty());
  EXPECT_EQ(status.error_code(), grpc::StatusCode::INVALID_ARGUMENT);
  EXPECT_THAT(status.error_message(), HasSubstr("did you mean \"table\"?"));
}

TEST(SwitchService, ListsMoreFlowsThanAreSentAtOnce) {
  constexpr int kFlows = 2000;
  ControlBench control;
  std::string text;
  for (int i = 0; i < kFlows; i++) {
    text += fmt::format("priority={},tcp,tp_dst={},actions=drop\n", 60000 - i,
                        i + 1);
  }
  control.add(text);
  const std::vector<pb::FlowEntry> entries = control.dump();
  ASSERT_THAT(entries, SizeIs(kFlows));
  for (int i = 0; i < kFlows; i++) {
    ASSERT_EQ(entries[static_cast<size_t>(i)].match(),
              fmt::format("tcp,tp_dst={}", i + 1));
  }
}

// Whoever reads a few thousand flows at leisure keeps nobody from reading.
TEST(SwitchService, ListsBesideAListingThatRests) {
  ControlBench control({.counters = 1 << 15});
  std::string text;
  for (int i = 1; i <= 8000; i++) {
    text += fmt::format("tcp,tp_dst={},actions=drop\n", i);
  }
  control.add(text);
  grpc::ClientContext context;
  const auto resting = control.client().DumpFlows(&context, {});
  pb::FlowEntry entry;
  ASSERT_TRUE(resting->Read(&entry));
  const auto start = std::chrono::steady_clock::now();
  pb::FlowFilter filter;
  filter.set_text("tcp,tp_dst=7");
  EXPECT_THAT(control.dump(filter), SizeIs(1));
  EXPECT_LT(std::chrono::steady_clock::now() - start,
            openflow_test::timeLimit(std::chrono::seconds(5)));
  context.TryCancel();
  while (resting->Read(&entry)) continue;
  resting->Finish();
}

TEST(SwitchService, AnswersWhatTheSwitchAnswers) {
  ControlBench control({.flows = "in_port=1,actions=output:3\n"});
  control.bench().receive(1, tcpTo(80), 5);
  control.bench().receive(2, tcpTo(80), 2);
  control.bench().settled();
  const LiveSwitch& live = control.bench().live();
  {
    grpc::ClientContext context;
    pb::TablesRequest request;
    request.set_all(true);
    pb::TablesReply reply;
    ASSERT_TRUE(control.client().GetTables(&context, request, &reply).ok());
    EXPECT_EQ(reply.tables_size(), 32);
    EXPECT_EQ(reply.tables(0).entered(), 7);
    EXPECT_TRUE(MessageDifferencer::Equals(reply, live.tables(request)));
  }
  {
    grpc::ClientContext context;
    pb::PortsReply reply;
    ASSERT_TRUE(control.client().GetPorts(&context, {}, &reply).ok());
    ASSERT_EQ(reply.ports_size(), 4);
    EXPECT_EQ(reply.ports(0).driver(), "");
    EXPECT_EQ(reply.ports(0).rx_queues(), 0);
    EXPECT_EQ(reply.ports(1).driver(), "net_ring");
    EXPECT_EQ(reply.ports(1).rx_queues(), 1);
    EXPECT_EQ(reply.ports(3).driver(), "net_pcap");
    EXPECT_EQ(reply.ports(3).tx_packets(), 5);
    EXPECT_TRUE(MessageDifferencer::Equals(reply, live.ports()));
  }
  grpc::ClientContext context;
  pb::StatsRequest request;
  request.set_pause(true);
  pb::StatsReply reply;
  ASSERT_TRUE(control.client().GetStats(&context, request, &reply).ok());
  EXPECT_EQ(reply.packets_received(), 7);
  EXPECT_EQ(reply.packets_sent(), 5);
  EXPECT_EQ(LiveBench::drops(reply, "table_miss"), 2);
  EXPECT_TRUE(reply.exact());
  EXPECT_TRUE(reply.closes());
}

std::vector<pb::LogEntry> readLog(ControlBench* control,
                                  const pb::LogRequest& request) {
  grpc::ClientContext context;
  const auto reader = control->client().ReadLog(&context, request);
  std::vector<pb::LogEntry> entries;
  pb::LogEntry entry;
  while (reader->Read(&entry)) entries.push_back(entry);
  EXPECT_TRUE(reader->Finish().ok());
  return entries;
}

const Mio::TraceHandle& trace() {
  static const Mio::TraceHandle handle("ControlDoorTest", 0);
  return handle;
}

TEST(SwitchService, ReadsTheLog) {
  ControlBench control;
  // More than is read at a time.
  for (int i = 0; i < 500; i++) TWINLOG_TRACE(trace(), 3, "line %s", i);
  pb::LogRequest request;
  request.set_facility("ControlDoorTest");
  request.set_max_level(2);
  EXPECT_THAT(readLog(&control, request), IsEmpty());
  request.set_max_level(3);
  const std::vector<pb::LogEntry> all = readLog(&control, request);
  ASSERT_GE(all.size(), 500);
  EXPECT_EQ(all[all.size() - 500].text(), "line 0");
  EXPECT_EQ(all.back().text(), "line 499");
  EXPECT_EQ(all.back().level(), 3);

  request.set_last(2);
  const std::vector<pb::LogEntry> last = readLog(&control, request);
  ASSERT_THAT(last, SizeIs(2));
  EXPECT_EQ(last[0].text(), "line 498");

  request.clear_last();
  request.set_since(all.back().position());
  ASSERT_THAT(readLog(&control, request), SizeIs(1));
  request.set_since(all.back().position() + 1);
  EXPECT_THAT(readLog(&control, request), IsEmpty());
}

TEST(SwitchService, ReadsTheLogAsFarAsItWas) {
  ControlBench control;
  // More than is sent to a client that does not read.
  const std::string line(2000, 'x');
  for (int i = 0; i < 100; i++) TWINLOG_TRACE(trace(), 4, "%s", line);
  pb::LogRequest request;
  request.set_facility("ControlDoorTest");
  request.set_max_level(4);
  request.set_last(100);
  grpc::ClientContext context;
  const auto reader = control.client().ReadLog(&context, request);
  pb::LogEntry entry;
  ASSERT_TRUE(reader->Read(&entry));
  for (int i = 0; i < 10; i++) TWINLOG_TRACE(trace(), 4, "late");
  int count = 0;
  do {
    EXPECT_EQ(entry.text(), line);
    count++;
  } while (reader->Read(&entry));
  EXPECT_EQ(count, 100);
  EXPECT_TRUE(reader->Finish().ok());
}

TEST(SwitchService, FollowsTheLog) {
  ControlBench control;
  TWINLOG_TRACE(trace(), 3, "before");
  pb::LogRequest request;
  request.set_facility("ControlDoorTest");
  request.set_max_level(5);
  request.set_follow(true);
  request.set_last(1);
  grpc::ClientContext context;
  const auto reader = control.client().ReadLog(&context, request);
  pb::LogEntry entry;
  ASSERT_TRUE(reader->Read(&entry));
  EXPECT_EQ(entry.text(), "before");
  for (int i = 0; i < 3; i++) {
    TWINLOG_TRACE(trace(), 3, "line %s", i);
    ASSERT_TRUE(reader->Read(&entry));
    EXPECT_EQ(entry.text(), fmt::format("line {}", i));
  }
  // More at a time than it began with.
  for (int i = 10; i < 20; i++) TWINLOG_TRACE(trace(), 3, "line %s", i);
  for (int i = 10; i < 20; i++) {
    ASSERT_TRUE(reader->Read(&entry));
    ASSERT_EQ(entry.text(), fmt::format("line {}", i));
  }
  context.TryCancel();
  EXPECT_FALSE(reader->Read(&entry));
  EXPECT_EQ(reader->Finish().error_code(), grpc::StatusCode::CANCELLED);
}

TEST(SwitchService, SetsLogLevels) {
  ControlBench control;
  pb::LogLevels levels;
  (*levels.mutable_levels())["Controller"] = 7;
  pb::LogLevels reply;
  {
    grpc::ClientContext context;
    ASSERT_TRUE(control.client().SetLogLevels(&context, levels, &reply).ok());
  }
  EXPECT_EQ(reply.levels().at("Controller"), 7);
  EXPECT_EQ(reply.levels().count("OpenFlow"), 1);
  (*levels.mutable_levels())["Controler"] = 7;
  grpc::ClientContext context;
  const grpc::Status status =
      control.client().SetLogLevels(&context, levels, &reply);
  EXPECT_EQ(status.error_code(), grpc::StatusCode::INVALID_ARGUMENT);
  EXPECT_EQ(status.error_message(),
            "nothing logs as \"Controler\", did you mean \"Controller\"?");
}

}  // namespace
}  // namespace ofswitch
