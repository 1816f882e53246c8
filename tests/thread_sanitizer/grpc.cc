// SPDX-License-Identifier: BSD-3-Clause
//
// gRPC, as ThreadSanitizer should see it, beside its locks (absl.cc):
//
//   starting a batch                     happens before  what is done once its
//                                                        tag is handed out
//   giving up a reference to a call      happens before  the call's end
//
// Inside it passes both on by queues without locks and by counts.
#include <grpc/grpc.h>
#include <grpcpp/support/server_callback.h>
#include <sanitizer/tsan_interface.h>

#include "tests/support/next_definition.h"

using openflow_test::next;

namespace {

// Where grpc::internal::ServerCallbackCall keeps its count of references,
// behind its virtual functions and another count. Instrumented code gives its
// own up there, by atomic operations that are seen.
constexpr size_t kReferences = 12;

// Stands for a call's reactor when the library tells it that the call is
// cancelled: on another thread, with a reference that it gives up right after.
class Cancellation final : public grpc::internal::ServerReactor {
 public:
  Cancellation(char* call, ServerReactor* reactor)
      : call_(call), reactor_(reactor) {
    __tsan_release(this);
  }
  void OnCancel() override {
    __tsan_acquire(this);
    reactor_->OnCancel();
    __tsan_release(call_ + kReferences);
    delete this;
  }
  void OnDone() override {}  // the reactor itself is told
  bool InternalInlineable() override { return reactor_->InternalInlineable(); }

 private:
  char* const call_;
  ServerReactor* const reactor_;
};

}  // namespace

extern "C" {

grpc_call_error grpc_call_start_batch(grpc_call* call, const grpc_op* ops,
                                      size_t count, void* tag, void* reserved) {
  static auto* real =
      next<decltype(grpc_call_start_batch)>("grpc_call_start_batch");
  __tsan_release(tag);
  return real(call, ops, count, tag, reserved);
}

grpc_event grpc_completion_queue_next(grpc_completion_queue* queue,
                                      gpr_timespec deadline, void* reserved) {
  static auto* real =
      next<decltype(grpc_completion_queue_next)>("grpc_completion_queue_next");
  const grpc_event event = real(queue, deadline, reserved);
  if (event.type == GRPC_OP_COMPLETE) __tsan_acquire(event.tag);
  return event;
}

grpc_event grpc_completion_queue_pluck(grpc_completion_queue* queue, void* tag,
                                       gpr_timespec deadline, void* reserved) {
  static auto* real = next<decltype(grpc_completion_queue_pluck)>(
      "grpc_completion_queue_pluck");
  const grpc_event event = real(queue, tag, deadline, reserved);
  if (event.type == GRPC_OP_COMPLETE) __tsan_acquire(tag);
  return event;
}

// Of ServerCallbackCall.
void callOnCancel(char* call, grpc::internal::ServerReactor* reactor) __asm__(
    "_ZN4grpc8internal18ServerCallbackCall12CallOnCancelEPNS0_"
    "13ServerReactorE");
void callOnCancel(char* call, grpc::internal::ServerReactor* reactor) {
  static auto* real = next<decltype(callOnCancel)>(
      "_ZN4grpc8internal18ServerCallbackCall12CallOnCancelEPNS0_13ServerReactor"
      "E");
  real(call, new Cancellation(call, reactor));
}

// Of ServerCallbackCall, once its last reference is gone.
void scheduleOnDone(char* call, bool isInline) __asm__(
    "_ZN4grpc8internal18ServerCallbackCall14ScheduleOnDoneEb");
void scheduleOnDone(char* call, bool isInline) {
  static auto* real = next<decltype(scheduleOnDone)>(
      "_ZN4grpc8internal18ServerCallbackCall14ScheduleOnDoneEb");
  __tsan_acquire(call + kReferences);
  real(call, isInline);
}

}  // extern "C"
