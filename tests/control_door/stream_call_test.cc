// SPDX-License-Identifier: BSD-3-Clause
#include "switch/control/stream_call.h"

#include <grpcpp/grpcpp.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "switch.grpc.pb.h"
#include "switch/control/message_codec.h"
#include "switch/control/work_queue.h"
#include "tests/captures/capture_files.h"
#include "tests/support/time_limit.h"

namespace ofswitch {
namespace {

using namespace std::chrono_literals;
using openflow_test::timeLimit;
using Clock = std::chrono::steady_clock;
using More = StreamCall::More;

// A service of one stream, which a test fills. Keeps the last call for longer
// than it lasts, as others may do for a moment.
class Service final
    : public pb::Switch::WithRawCallbackMethod_DumpFlows<pb::Switch::Service> {
 public:
  explicit Service(StreamCall::Fill fill) : fill_(std::move(fill)) {}

  grpc::ServerWriteReactor<grpc::ByteBuffer>* DumpFlows(
      grpc::CallbackServerContext* context, const grpc::ByteBuffer*) override {
    const auto call = StreamCall::start(&queue_, context, std::move(fill_));
    call_.set_value(call);
    return call.get();
  }

  std::shared_ptr<StreamCall> call() { return call_.get_future().get(); }

 private:
  WorkQueue queue_{1, 1};
  StreamCall::Fill fill_;
  std::promise<std::shared_ptr<StreamCall>> call_;
};

// A door to such a service, and what its only call is answered with.
class Door {
 public:
  explicit Door(StreamCall::Fill fill) : service_(std::move(fill)) {
    grpc::ServerBuilder builder;
    const std::string address = "unix:" + (dir_ / "stream.sock").string();
    builder.AddListeningPort(address, grpc::InsecureServerCredentials());
    builder.RegisterService(&service_);
    server_ = builder.BuildAndStart();
    stub_ = pb::Switch::NewStub(
        grpc::CreateChannel(address, grpc::InsecureChannelCredentials()));
  }
  ~Door() { server_->Shutdown(std::chrono::system_clock::now()); }
  Door(const Door&) = delete;
  Door& operator=(const Door&) = delete;

  // The texts of the flows, and how the call ended.
  std::string answer() {
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + timeLimit(20s));
    const auto reader = stub_->DumpFlows(&context, {});
    std::string all;
    pb::FlowEntry entry;
    while (reader->Read(&entry)) all += entry.text() + " ";
    const grpc::Status status = reader->Finish();
    return all + (status.ok() ? "OK" : status.error_message());
  }

  std::shared_ptr<StreamCall> call() { return service_.call(); }

 private:
  openflow_test::ScratchDir dir_;
  Service service_;
  std::unique_ptr<grpc::Server> server_;
  std::unique_ptr<pb::Switch::Stub> stub_;
};

grpc::ByteBuffer flow(const std::string& text) {
  pb::FlowEntry entry;
  entry.set_text(text);
  return encode(entry);
}

// What came while it was looking may be what it did not see.
TEST(StreamCall, IsAskedAgainWhenItWasWokenWhileItWasAsked) {
  std::atomic<int> asked = 0;
  Door door([&asked](StreamCall* call) {
    if (++asked == 1) {
      call->wake();
      return More::kLater;
    }
    call->send(flow("one"));
    return More::kNone;
  });
  EXPECT_EQ(door.answer(), "one OK");
  EXPECT_EQ(asked, 2);
}

TEST(StreamCall, CanBeCancelledWhenItIsOver) {
  auto kept = std::make_shared<int>();
  const std::weak_ptr<int> left = kept;
  Door door([kept](StreamCall* call) {
    call->send(flow("one"));
    return More::kNone;
  });
  kept.reset();
  EXPECT_EQ(door.answer(), "one OK");
  const std::shared_ptr<StreamCall> call = door.call();
  // gRPC says so a moment later, and takes the call's context with it.
  const auto deadline = Clock::now() + timeLimit(20s);
  while (!left.expired() && Clock::now() < deadline) {
    std::this_thread::sleep_for(1ms);
  }
  ASSERT_TRUE(left.expired()) << "it keeps what it was filled from";
  call->cancel();
}

}  // namespace
}  // namespace ofswitch
