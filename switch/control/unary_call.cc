// SPDX-License-Identifier: BSD-3-Clause
#include "switch/control/unary_call.h"

#include <exception>
#include <utility>

#include "switch/control/call_status.h"

namespace ofswitch {

grpc::ServerUnaryReactor* startUnaryCall(
    WorkQueue* queue, grpc::CallbackServerContext* context,
    grpc::ByteBuffer* reply, std::function<grpc::ByteBuffer()> work) {
  grpc::ServerUnaryReactor* reactor = context->DefaultReactor();
  queue->add([context, reactor, reply, work = std::move(work)] {
    if (context->IsCancelled()) {
      reactor->Finish(callStatus(grpc::StatusCode::CANCELLED, "cancelled"));
      return;
    }
    grpc::Status status;
    try {
      *reply = work();
    } catch (...) {
      status = statusOf(std::current_exception());
    }
    reactor->Finish(status);
  });
  return reactor;
}

}  // namespace ofswitch
