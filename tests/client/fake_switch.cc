// SPDX-License-Identifier: BSD-3-Clause
#include "tests/client/fake_switch.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace ofswitch {

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
  change = *request;
  pb::FlowChangeEvent event;
  for (const pb::FlowProgress& one : progress) {
    *event.mutable_progress() = one;
    writer->Write(event);
  }
  std::this_thread::sleep_for(changeTime);
  *event.mutable_reply() = changeReply;
  if (status.ok()) writer->Write(event);
  return status;
}

grpc::Status FakeSwitch::DumpFlows(grpc::ServerContext* /*context*/,
                                   const pb::FlowFilter* request,
                                   grpc::ServerWriter<pb::FlowEntry>* writer) {
  filter = *request;
  for (const pb::FlowEntry& flow : flows) {
    if (!writer->Write(flow)) break;
  }
  return status;
}

grpc::Status FakeSwitch::GetTables(grpc::ServerContext* /*context*/,
                                   const pb::TablesRequest* request,
                                   pb::TablesReply* reply) {
  tablesRequest = *request;
  *reply = tables;
  return status;
}

grpc::Status FakeSwitch::GetPorts(grpc::ServerContext* /*context*/,
                                  const pb::PortsRequest* /*request*/,
                                  pb::PortsReply* reply) {
  *reply = ports;
  return status;
}

grpc::Status FakeSwitch::GetStats(grpc::ServerContext* /*context*/,
                                  const pb::StatsRequest* request,
                                  pb::StatsReply* reply) {
  statsRequest = *request;
  *reply = stats[std::min(statsRead_, stats.size() - 1)];
  statsRead_++;
  return status;
}

grpc::Status FakeSwitch::ReadLog(grpc::ServerContext* context,
                                 const pb::LogRequest* request,
                                 grpc::ServerWriter<pb::LogEntry>* writer) {
  logRequest = *request;
  for (const pb::LogEntry& entry : log) writer->Write(entry);
  while (request->follow() && !context->IsCancelled()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return status;
}

grpc::Status FakeSwitch::SetLogLevels(grpc::ServerContext* /*context*/,
                                      const pb::LogLevels* request,
                                      pb::LogLevels* reply) {
  levelsRequest = *request;
  *reply = levels;
  return status;
}

}  // namespace ofswitch
