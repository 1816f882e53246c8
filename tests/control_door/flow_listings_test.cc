// SPDX-License-Identifier: BSD-3-Clause
#include "switch/control/flow_listings.h"

#include <fmt/format.h>
#include <grpcpp/grpcpp.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "switch.grpc.pb.h"
#include "switch/control/message_codec.h"
#include "switch/control/unary_call.h"
#include "switch/control/work_queue.h"
#include "tests/captures/capture_files.h"
#include "tests/support/time_limit.h"
#include "tests/switch/live_bench.h"

namespace ofswitch {
namespace {

using namespace std::chrono_literals;
using openflow_test::timeLimit;

constexpr int kFlows = 3000;

// A service that has nothing but listings, which together keep few flows, and
// one question.
class Service final
    : public pb::Switch::WithRawCallbackMethod_DumpFlows<
          pb::Switch::WithRawCallbackMethod_GetPorts<pb::Switch::Service>> {
 public:
  Service(FlowListings* listings, WorkQueue* queue)
      : listings_(listings), queue_(queue) {}

  grpc::ServerWriteReactor<grpc::ByteBuffer>* DumpFlows(
      grpc::CallbackServerContext* context,
      const grpc::ByteBuffer* request) override {
    const auto call = listings_->start(queue_, context, request);
    {
      const std::lock_guard lock(mutex_);
      calls_.push_back(call);
    }
    wake_.notify_all();
    return call.get();
  }

  // Whether so many listings come to be asked for, for which it waits.
  bool isAskedFor(size_t count) {
    std::unique_lock lock(mutex_);
    return wake_.wait_for(lock, timeLimit(10s),
                          [&] { return calls_.size() == count; });
  }

  grpc::ServerUnaryReactor* GetPorts(grpc::CallbackServerContext* context,
                                     const grpc::ByteBuffer*,
                                     grpc::ByteBuffer* reply) override {
    return startUnaryCall(queue_, context, reply,
                          [] { return encode(pb::PortsReply()); });
  }

 private:
  FlowListings* const listings_;
  WorkQueue* const queue_;
  std::mutex mutex_;
  std::condition_variable wake_;
  // Held for longer than they last, as others may do for a moment.
  std::vector<std::shared_ptr<StreamCall>> calls_;
};

class FlowListingsTest : public testing::Test {
 protected:
  struct Client {
    std::unique_ptr<pb::Switch::Stub> stub;
    grpc::ClientContext context;
    std::unique_ptr<grpc::ClientReader<pb::FlowEntry>> reader;

    // How many entries come until the end.
    int readAll() const {
      pb::FlowEntry entry;
      int count = 0;
      while (reader->Read(&entry)) count++;
      return count;
    }
    bool readOne() const {
      pb::FlowEntry entry;
      return reader->Read(&entry);
    }
  };

  // No client rests for longer than `longestRest` while others wait.
  explicit FlowListingsTest(std::chrono::milliseconds longestRest = 1h)
      : listings_(&bench_.live(), 100, longestRest) {
    std::string text;
    for (int i = 0; i < kFlows; i++) {
      text += fmt::format("priority={},tcp,tp_dst={},actions=drop\n", 60000 - i,
                          i + 1);
    }
    bench_.add(text);
    grpc::ServerBuilder builder;
    builder.AddListeningPort("unix:" + path(),
                             grpc::InsecureServerCredentials());
    builder.RegisterService(&service_);
    server_ = builder.BuildAndStart();
  }
  ~FlowListingsTest() override {
    server_->Shutdown(std::chrono::system_clock::now());
  }

  std::unique_ptr<Client> list(const std::string& filter = "") {
    auto client = std::make_unique<Client>();
    grpc::ChannelArguments arguments;
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    arguments.SetInt(GRPC_ARG_HTTP2_BDP_PROBE, 0);
    client->stub = pb::Switch::NewStub(grpc::CreateCustomChannel(
        "unix:" + path(), grpc::InsecureChannelCredentials(), arguments));
    pb::FlowFilter message;
    message.set_text(filter);
    client->reader = client->stub->DumpFlows(&client->context, message);
    return client;
  }

  static grpc::Status askForPorts(const Client& client) {
    grpc::ClientContext context;
    pb::PortsReply reply;
    return client.stub->GetPorts(&context, {}, &reply);
  }

  std::string path() const { return dir_ / "listings.sock"; }

  // Whether a flow comes while time passes for the listings. Asked a second
  // time, it goes on waiting for the same one.
  bool comesWhileTicking(const Client& client,
                         std::chrono::milliseconds patience) {
    if (!one_.valid()) {
      one_ = std::async(std::launch::async, [&] { return client.readOne(); });
    }
    const auto end = std::chrono::steady_clock::now() + timeLimit(patience);
    while (std::chrono::steady_clock::now() < end) {
      listings_.tick();
      if (one_.wait_for(5ms) == std::future_status::ready) return one_.get();
    }
    return false;
  }

  LiveBench bench_{{.counters = 1 << 16}};
  openflow_test::ScratchDir dir_;
  FlowListings listings_;
  // One thread: what a listing keeps is known before the next one begins.
  WorkQueue queue_{1, 16};
  Service service_{&listings_, &queue_};
  std::unique_ptr<grpc::Server> server_;
  std::future<bool> one_;
};

class RestingListingsTest : public FlowListingsTest {
 protected:
  RestingListingsTest() : FlowListingsTest(500ms) {}
};

TEST_F(FlowListingsTest, WaitWhileOthersKeepTooMuch) {
  const auto slow = list();
  ASSERT_TRUE(slow->readOne());
  const auto next = list("tcp,tp_dst=7");
  ASSERT_TRUE(service_.isAskedFor(2));
  EXPECT_FALSE(comesWhileTicking(*next, 300ms));
  // It has not rested for too long: it gets all of its flows.
  EXPECT_EQ(slow->readAll(), kFlows - 1);
  EXPECT_TRUE(slow->reader->Finish().ok());
  EXPECT_TRUE(comesWhileTicking(*next, 10s));
  EXPECT_FALSE(next->readOne());
  EXPECT_TRUE(next->reader->Finish().ok());
}

TEST_F(FlowListingsTest, GoOnWithoutTicksWhenThereIsRoom) {
  for (int i = 0; i < 3; i++) {
    const auto client = list();
    EXPECT_EQ(client->readAll(), kFlows);
    EXPECT_TRUE(client->reader->Finish().ok());
  }
  const auto wrong = list("tabel=3");
  EXPECT_EQ(wrong->readAll(), 0);
  EXPECT_EQ(wrong->reader->Finish().error_code(),
            grpc::StatusCode::INVALID_ARGUMENT);
}

TEST_F(RestingListingsTest, EndWhileOthersWait) {
  const auto start = std::chrono::steady_clock::now();
  const auto resting = list();
  ASSERT_TRUE(resting->readOne());
  const auto next = list("tcp,tp_dst=7");
  EXPECT_TRUE(comesWhileTicking(*next, 10s));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 500ms);
  EXPECT_LT(resting->readAll(), kFlows - 1);
  EXPECT_EQ(resting->reader->Finish().error_code(),
            grpc::StatusCode::CANCELLED);
}

TEST_F(RestingListingsTest, RestAsLongAsNobodyWaits) {
  const auto resting = list();
  ASSERT_TRUE(resting->readOne());
  for (int i = 0; i < 70; i++) {
    listings_.tick();
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_EQ(resting->readAll(), kFlows - 1);
  EXPECT_TRUE(resting->reader->Finish().ok());
}

// One that has not begun because the threads are at something else does not
// rest.
TEST_F(RestingListingsTest, DoNotEndBeforeTheyBegin) {
  const auto slow = list();
  ASSERT_TRUE(slow->readOne());
  const auto waiting = list("tcp,tp_dst=7");
  ASSERT_TRUE(service_.isAskedFor(2));
  EXPECT_FALSE(comesWhileTicking(*waiting, 20ms));
  std::promise<void> go;
  ASSERT_TRUE(queue_.takePlace());
  queue_.add([&] {
    go.get_future().wait();
    queue_.givePlaceBack();
  });
  const auto late = list("tcp,tp_dst=8");
  ASSERT_TRUE(service_.isAskedFor(3));
  listings_.tick();
  go.set_value();
  EXPECT_TRUE(comesWhileTicking(*waiting, 10s));
  EXPECT_EQ(late->readAll(), 1);
  EXPECT_TRUE(late->reader->Finish().ok());
}

TEST_F(FlowListingsTest, KeepNothingOnceTheyAreGivenUp) {
  const auto slow = list();
  ASSERT_TRUE(slow->readOne());
  slow->context.TryCancel();
  EXPECT_LT(slow->readAll(), kFlows - 1);
  EXPECT_EQ(slow->reader->Finish().error_code(), grpc::StatusCode::CANCELLED);
  const auto next = list("tcp,tp_dst=7");
  EXPECT_TRUE(comesWhileTicking(*next, 10s));
}

TEST_F(FlowListingsTest, GivePlacesBack) {
  for (int i = 0; i < 40; i++) {
    const auto client = list("tcp,tp_dst=7");
    EXPECT_EQ(client->readAll(), 1);
    EXPECT_TRUE(client->reader->Finish().ok()) << i;
    EXPECT_TRUE(askForPorts(*client).ok()) << i;
  }
}

TEST_F(FlowListingsTest, RefuseWhatThereIsNoPlaceFor) {
  std::vector<std::unique_ptr<Client>> clients;
  for (int i = 0; i < 16; i++) clients.push_back(list());
  ASSERT_TRUE(service_.isAskedFor(16));
  const auto more = list();
  EXPECT_EQ(more->readAll(), 0);
  const grpc::Status status = more->reader->Finish();
  EXPECT_EQ(status.error_code(), grpc::StatusCode::RESOURCE_EXHAUSTED);
  EXPECT_EQ(status.error_message(), "too many requests at once; try again");
  EXPECT_EQ(askForPorts(*more).error_code(),
            grpc::StatusCode::RESOURCE_EXHAUSTED);
  for (const auto& client : clients) client->context.TryCancel();
}

}  // namespace
}  // namespace ofswitch
