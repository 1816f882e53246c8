// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <grpcpp/grpcpp.h>

#include <functional>

#include "switch/control/message_codec.h"
#include "switch/control/work_queue.h"

namespace ofswitch {

// Answers a call with what `work` returns, or with the status of what it
// throws. It runs on a thread of `queue`, not any more when the call is
// cancelled before its turn comes.
grpc::ServerUnaryReactor* startUnaryCall(
    WorkQueue* queue, grpc::CallbackServerContext* context,
    grpc::ByteBuffer* reply, std::function<grpc::ByteBuffer()> work);

// The same with messages: `work` takes a Request and answers a message.
template <class Request, class Work>
grpc::ServerUnaryReactor* answer(WorkQueue* queue,
                                 grpc::CallbackServerContext* context,
                                 const grpc::ByteBuffer* request,
                                 grpc::ByteBuffer* reply, Work work,
                                 const MessageLimits& limits = kSmallMessage) {
  // gRPC keeps `request` until the call is done.
  return startUnaryCall(queue, context, reply, [request, work, limits] {
    Request message;
    decode(*request, limits, &message);
    return encode(work(message));
  });
}

}  // namespace ofswitch
