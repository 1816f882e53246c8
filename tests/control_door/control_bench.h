// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <grpcpp/grpcpp.h>

#include <memory>
#include <string>
#include <vector>

#include "switch.grpc.pb.h"
#include "switch/control/control_server.h"
#include "tests/captures/capture_files.h"
#include "tests/switch/live_bench.h"

namespace ofswitch {

// A switch in this process with its control door open, and a client in front
// of it.
class ControlBench {
 public:
  explicit ControlBench(const LiveBench::Options& options = {});

  LiveBench& bench() { return bench_; }
  ControlServer& door() { return *door_; }
  pb::Switch::Stub& client() { return *client_; }
  std::string socket() const { return config_.controlSocket; }

  // A client with a connection of its own.
  std::shared_ptr<grpc::Channel> connect() const;

  // All that one change is answered with.
  std::vector<pb::FlowChangeEvent> change(const pb::FlowChange& change,
                                          grpc::Status* status = nullptr);
  // A change that must be applied.
  pb::FlowChangeReply add(const std::string& text);

  std::vector<pb::FlowEntry> dump(const pb::FlowFilter& filter = {},
                                  grpc::Status* status = nullptr);

 private:
  LiveBench bench_;
  openflow_test::ScratchDir dir_;
  SwitchConfig config_;
  std::unique_ptr<ControlServer> door_;
  std::unique_ptr<pb::Switch::Stub> client_;
};

}  // namespace ofswitch
