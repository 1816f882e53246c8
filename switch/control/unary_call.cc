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
  if (!queue->takePlace()) {
    reactor->Finish(tooManyCalls());
    return reactor;
  }
  queue->add([queue, context, reactor, reply, work = std::move(work)] {
    grpc::Status status;
    if (context->IsCancelled()) {
      status = callStatus(grpc::StatusCode::CANCELLED, "cancelled");
    } else {
      try {
        *reply = work();
      } catch (...) {
        status = statusOf(std::current_exception());
      }
    }
    queue->givePlaceBack();
    reactor->Finish(status);
  });
  return reactor;
}

}  // namespace ofswitch
