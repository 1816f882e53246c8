// SPDX-License-Identifier: BSD-3-Clause
#include "tests/control_door/control_bench.h"

#include <gtest/gtest.h>

namespace ofswitch {

ControlBench::ControlBench(const LiveBench::Options& options)
    : bench_(options), config_(bench_->config()) {
  config_.controlSocket = dir_ / "run" / "control.sock";
  door_ =
      std::make_unique<ControlServer>(ControlSockets(config_), &bench_.live());
  client_ = pb::Switch::NewStub(connect());
}

std::shared_ptr<grpc::Channel> ControlBench::connect() const {
  grpc::ChannelArguments arguments;
  arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
  // A window that does not grow: what a client does not read stays where it is.
  arguments.SetInt(GRPC_ARG_HTTP2_BDP_PROBE, 0);
  return grpc::CreateCustomChannel(
      "unix:" + socket(), grpc::InsecureChannelCredentials(), arguments);
}

std::vector<pb::FlowChangeEvent> ControlBench::change(
    const pb::FlowChange& change, grpc::Status* status) {
  grpc::ClientContext context;
  const auto reader = client_->ChangeFlows(&context, change);
  std::vector<pb::FlowChangeEvent> events;
  pb::FlowChangeEvent event;
  while (reader->Read(&event)) events.push_back(event);
  const grpc::Status end = reader->Finish();
  if (status != nullptr) {
    *status = end;
  } else {
    EXPECT_TRUE(end.ok()) << end.error_message();
  }
  return events;
}

pb::FlowChangeReply ControlBench::add(const std::string& text) {
  pb::FlowChange message;
  message.set_operation(pb::FLOW_OPERATION_ADD);
  message.set_text(text);
  const std::vector<pb::FlowChangeEvent> events = change(message);
  if (events.size() != 1 || !events[0].has_reply()) {
    ADD_FAILURE() << "no reply";
    return {};
  }
  EXPECT_TRUE(events[0].reply().applied());
  return events[0].reply();
}

std::vector<pb::FlowEntry> ControlBench::dump(const pb::FlowFilter& filter,
                                              grpc::Status* status) {
  grpc::ClientContext context;
  const auto reader = client_->DumpFlows(&context, filter);
  std::vector<pb::FlowEntry> entries;
  pb::FlowEntry entry;
  while (reader->Read(&entry)) entries.push_back(entry);
  const grpc::Status end = reader->Finish();
  if (status != nullptr) {
    *status = end;
  } else {
    EXPECT_TRUE(end.ok()) << end.error_message();
  }
  return entries;
}

}  // namespace ofswitch
