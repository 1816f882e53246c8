// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <grpcpp/grpcpp.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "switch.grpc.pb.h"
#include "tests/captures/capture_files.h"

namespace ofswitch {

// A control door that answers what a test has written down, so that tests know
// every time and counter that a command prints.
class FakeSwitch final : public pb::Switch::Service {
 public:
  explicit FakeSwitch(std::string address = "");  // empty: a unix socket
  ~FakeSwitch() override;

  // What a test has written is there for the calls, and what they have written
  // for the test, once each has done this. The order itself is that of messages
  // on a socket, which other processes take part in.
  void handOver() { turn_.fetch_add(1, std::memory_order_acq_rel); }

  std::string socket() const { return dir_ / "control.sock"; }
  int port() const { return port_; }
  // A file that is there once a call is left waiting.
  std::filesystem::path waiting() const { return dir_ / "waiting"; }

  // Answers.
  std::vector<pb::FlowEntry> flows;
  std::vector<pb::FlowProgress> progress;
  pb::FlowChangeReply changeReply;
  std::chrono::milliseconds changeTime{0};  // between progress and reply
  bool hangsUp = false;                     // without that reply
  pb::TablesReply tables;
  pb::PortsReply ports;
  std::vector<pb::StatsReply> stats;  // the last one stays
  size_t statsGiven = SIZE_MAX;       // behind these, calls are left waiting
  std::vector<pb::LogEntry> log;
  bool endsLogs = false;  // though somebody follows them
  pb::LogLevels levels;
  grpc::Status status;  // how every call ends

  // The last questions.
  pb::FlowChange change;
  pb::FlowFilter filter;
  pb::TablesRequest tablesRequest;
  pb::StatsRequest statsRequest;
  pb::LogRequest logRequest;
  pb::LogLevels levelsRequest;

  grpc::Status ChangeFlows(
      grpc::ServerContext* context, const pb::FlowChange* request,
      grpc::ServerWriter<pb::FlowChangeEvent>* writer) override;
  grpc::Status DumpFlows(grpc::ServerContext* context,
                         const pb::FlowFilter* request,
                         grpc::ServerWriter<pb::FlowEntry>* writer) override;
  grpc::Status GetTables(grpc::ServerContext* context,
                         const pb::TablesRequest* request,
                         pb::TablesReply* reply) override;
  grpc::Status GetPorts(grpc::ServerContext* context,
                        const pb::PortsRequest* request,
                        pb::PortsReply* reply) override;
  grpc::Status GetStats(grpc::ServerContext* context,
                        const pb::StatsRequest* request,
                        pb::StatsReply* reply) override;
  grpc::Status ReadLog(grpc::ServerContext* context,
                       const pb::LogRequest* request,
                       grpc::ServerWriter<pb::LogEntry>* writer) override;
  grpc::Status SetLogLevels(grpc::ServerContext* context,
                            const pb::LogLevels* request,
                            pb::LogLevels* reply) override;

 private:
  std::atomic<unsigned> turn_ = 0;
  openflow_test::ScratchDir dir_;
  int port_ = 0;
  size_t statsRead_ = 0;
  std::unique_ptr<grpc::Server> server_;
};

}  // namespace ofswitch
