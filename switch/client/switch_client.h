// SPDX-License-Identifier: BSD-3-Clause
//
// The other side of the control door: what every command that asks a running
// switch begins with.
#pragma once

#include <grpcpp/grpcpp.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "switch.grpc.pb.h"
#include "switch/client/door_options.h"

namespace ofswitch {

// Why a switch cannot be asked, or what it answered instead: one line for a
// person.
struct ClientError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// A connection to a switch that runs.
class SwitchClient {
 public:
  using Stub = pb::Switch::Stub;

  // Connects. Waits for a switch that is still starting. Throws ClientError,
  // or TlsError for a file of its options.
  explicit SwitchClient(const DoorOptions& door);

  // For calls that are answered by a stream; check() takes what Finish()
  // answers.
  Stub& stub() { return *stub_; }

  // One question, one answer. Throws ClientError.
  template <class Request, class Reply>
  Reply call(grpc::Status (Stub::*method)(grpc::ClientContext*, const Request&,
                                          Reply*),
             const Request& request) {
    grpc::ClientContext context;
    Reply reply;
    check((*stub_.*method)(&context, request, &reply));
    return reply;
  }

  // Throws ClientError for a call that has failed.
  void check(const grpc::Status& status) const;

 private:
  std::string where_;  // "control socket /run/ofswitch/control.sock"
  std::shared_ptr<grpc::Channel> channel_;
  std::unique_ptr<Stub> stub_;
};

}  // namespace ofswitch
