// SPDX-License-Identifier: BSD-3-Clause
#include "tests/client/fake_switch.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace ofswitch {
namespace {

// A call, from its first look at the switch to its last.
class Turn {
 public:
  explicit Turn(FakeSwitch* fake) : fake_(fake) { fake_->handOver(); }
  ~Turn() { fake_->handOver(); }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

 private:
  FakeSwitch* fake_;
};

}  // namespace

FakeSwitch::FakeSwitch(std::string address) {
  grpc::ServerBuilder builder;
  builder.SetMaxReceiveMessageSize(-1);
  builder.AddListeningPort(address.empty() ? "unix:" + socket() : address,
                           grpc::InsecureServerCredentials(), &port_);
  builder.RegisterService(this);
  server_ = builder.BuildAndStart();
}

FakeSwitch::~FakeSwitch() {
  server_->Shutdown(std::chrono::system_clock::now());
}

grpc::Status FakeSwitch::ChangeFlows(
    grpc::ServerContext* /*context*/, const pb::FlowChange* request,
    grpc::ServerWriter<pb::FlowChangeEvent>* writer) {
  const Turn turn(this);
  change = *request;
  pb::FlowChangeEvent event;
  for (const pb::FlowProgress& one : progress) {
    *event.mutable_progress() = one;
    writer->Write(event);
  }
  std::this_thread::sleep_for(changeTime);
  *event.mutable_reply() = changeReply;
  if (status.ok() && !hangsUp) writer->Write(event);
  return status;
}

grpc::Status FakeSwitch::DumpFlows(grpc::ServerContext* /*context*/,
                                   const pb::FlowFilter* request,
                                   grpc::ServerWriter<pb::FlowEntry>* writer) {
  const Turn turn(this);
  filter = *request;
  for (const pb::FlowEntry& flow : flows) {
    if (!writer->Write(flow)) break;
  }
  return status;
}

grpc::Status FakeSwitch::GetTables(grpc::ServerContext* /*context*/,
                                   const pb::TablesRequest* request,
                                   pb::TablesReply* reply) {
  const Turn turn(this);
  tablesRequest = *request;
  *reply = tables;
  return status;
}

grpc::Status FakeSwitch::GetPorts(grpc::ServerContext* /*context*/,
                                  const pb::PortsRequest* /*request*/,
                                  pb::PortsReply* reply) {
  const Turn turn(this);
  *reply = ports;
  return status;
}

grpc::Status FakeSwitch::GetStats(grpc::ServerContext* context,
                                  const pb::StatsRequest* request,
                                  pb::StatsReply* reply) {
  const Turn turn(this);
  statsRequest = *request;
  if (statsRead_ == statsGiven) openflow_test::writeFile(waiting(), "");
  while (statsRead_ == statsGiven && !context->IsCancelled()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  *reply = stats[std::min(statsRead_, stats.size() - 1)];
  statsRead_++;
  return status;
}

grpc::Status FakeSwitch::ReadLog(grpc::ServerContext* context,
                                 const pb::LogRequest* request,
                                 grpc::ServerWriter<pb::LogEntry>* writer) {
  const Turn turn(this);
  logRequest = *request;
  handOver();  // a test does not wait for the end
  for (const pb::LogEntry& entry : log) writer->Write(entry);
  while (request->follow() && !endsLogs && !context->IsCancelled()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return status;
}

grpc::Status FakeSwitch::SetLogLevels(grpc::ServerContext* /*context*/,
                                      const pb::LogLevels* request,
                                      pb::LogLevels* reply) {
  const Turn turn(this);
  levelsRequest = *request;
  *reply = levels;
  return status;
}

}  // namespace ofswitch
