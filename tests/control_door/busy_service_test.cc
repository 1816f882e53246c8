// SPDX-License-Identifier: BSD-3-Clause
//
// A switch that has more to answer than it can, and calls that are given up
// before their turn.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "platform/mio/mio.h"
#include "switch.grpc.pb.h"
#include "switch/control/switch_service.h"
#include "switch/control/work_queue.h"
#include "tests/support/time_limit.h"
#include "tests/switch/live_bench.h"

namespace ofswitch {
namespace {

using namespace std::chrono_literals;
using openflow_test::timeLimit;
using testing::IsEmpty;
using testing::SizeIs;
using Clock = std::chrono::steady_clock;

constexpr size_t kPlaces = 2;
constexpr char kTooMany[] = "too many requests at once; try again";

class BusyService : public testing::Test {
 protected:
  BusyService() {
    grpc::ServerBuilder builder;
    builder.AddListeningPort(address_, grpc::InsecureServerCredentials());
    builder.RegisterService(&service_);
    server_ = builder.BuildAndStart();
    stub_ = pb::Switch::NewStub(
        grpc::CreateChannel(address_, grpc::InsecureChannelCredentials()));
  }
  ~BusyService() override { server_->Shutdown(); }

  // Keeps the only thread busy until it is let go.
  class Block {
   public:
    explicit Block(WorkQueue* queue) {
      queue->add([this] {
        begun_.set_value();
        end_.get_future().wait();
      });
      begun_.get_future().wait();
    }
    ~Block() { end_.set_value(); }

   private:
    std::promise<void> begun_;
    std::promise<void> end_;
  };

  // Whether all places are free again, for which it waits.
  bool isIdle() { return comesToHave(kPlaces); }

  // Whether a call has one of the places, for which it waits.
  bool isTaken() { return comesToHave(kPlaces - 1); }

  // Whether so many places are free, for which it waits.
  bool comesToHave(size_t free) {
    const auto deadline = Clock::now() + timeLimit(10s);
    while (Clock::now() < deadline) {
      size_t taken = 0;
      while (taken <= kPlaces && commands_.takePlace()) taken++;
      for (size_t i = 0; i < taken; i++) commands_.givePlaceBack();
      if (taken == free) return true;
      std::this_thread::sleep_for(1ms);
    }
    return false;
  }

  static pb::FlowChange addition() {
    pb::FlowChange change;
    change.set_operation(pb::FLOW_OPERATION_ADD);
    change.set_text("table=7,actions=drop\n");
    return change;
  }

  LiveBench bench_{{.flows = "in_port=1,actions=output:3\n"}};
  openflow_test::ScratchDir dir_;
  const std::string address_ = "unix:" + (dir_ / "busy.sock").string();
  WorkQueue commands_{1, kPlaces};
  WorkQueue readers_{1, 1};
  SwitchService service_{&bench_.live(), &commands_, &readers_};
  std::unique_ptr<grpc::Server> server_;
  std::unique_ptr<pb::Switch::Stub> stub_;
};

TEST_F(BusyService, RefusesWhatItHasNoPlaceFor) {
  for (size_t i = 0; i < kPlaces; i++) ASSERT_TRUE(commands_.takePlace());
  {
    grpc::ClientContext context;
    pb::PortsReply reply;
    const grpc::Status status = stub_->GetPorts(&context, {}, &reply);
    EXPECT_EQ(status.error_code(), grpc::StatusCode::RESOURCE_EXHAUSTED);
    EXPECT_EQ(status.error_message(), kTooMany);
  }
  {
    grpc::ClientContext context;
    const auto reader = stub_->ChangeFlows(&context, addition());
    pb::FlowChangeEvent event;
    EXPECT_FALSE(reader->Read(&event));
    const grpc::Status status = reader->Finish();
    EXPECT_EQ(status.error_code(), grpc::StatusCode::RESOURCE_EXHAUSTED);
    EXPECT_EQ(status.error_message(), kTooMany);
  }
  EXPECT_THAT(bench_.dump("table=7"), IsEmpty());

  // They have given back no places that they never had.
  EXPECT_FALSE(commands_.takePlace());
  for (size_t i = 0; i < kPlaces; i++) commands_.givePlaceBack();
  for (int round = 0; round < 3; round++) {
    grpc::ClientContext context;
    pb::PortsReply reply;
    EXPECT_TRUE(stub_->GetPorts(&context, {}, &reply).ok());
    EXPECT_EQ(reply.ports_size(), 4);
  }
  EXPECT_TRUE(isIdle());
}

// The log is read beside: who follows it takes no place of a command.
TEST_F(BusyService, HasPlacesOfTheirOwnForReadersOfTheLog) {
  for (size_t i = 0; i < kPlaces; i++) ASSERT_TRUE(commands_.takePlace());
  {
    grpc::ClientContext context;
    const auto reader = stub_->ReadLog(&context, {});
    pb::LogEntry entry;
    while (reader->Read(&entry)) {
    }
    EXPECT_TRUE(reader->Finish().ok());
  }
  for (size_t i = 0; i < kPlaces; i++) commands_.givePlaceBack();
}

TEST_F(BusyService, DoesNotBeginAChangeThatWasGivenUp) {
  {
    const Block block(&commands_);
    grpc::ClientContext context;
    const auto reader = stub_->ChangeFlows(&context, addition());
    ASSERT_TRUE(isTaken());
    context.TryCancel();
    pb::FlowChangeEvent event;
    EXPECT_FALSE(reader->Read(&event));
    EXPECT_EQ(reader->Finish().error_code(), grpc::StatusCode::CANCELLED);
    // The switch knows it a moment later than the client.
    std::this_thread::sleep_for(200ms);
  }
  EXPECT_TRUE(isIdle());
  EXPECT_THAT(bench_.dump("table=7"), IsEmpty());

  grpc::ClientContext context;
  const auto reader = stub_->ChangeFlows(&context, addition());
  pb::FlowChangeEvent event;
  EXPECT_TRUE(reader->Read(&event));
  EXPECT_TRUE(reader->Finish().ok());
  EXPECT_THAT(bench_.dump("table=7"), SizeIs(1));
}

TEST_F(BusyService, DoesNotBeginACommandThatWasGivenUp) {
  const uint32_t before = Mio::traceLevels("Controller");
  pb::LogLevels levels;
  (*levels.mutable_levels())["Controller"] = before ^ 0x20;
  {
    const Block block(&commands_);
    grpc::ClientContext context;
    pb::LogLevels reply;
    std::thread client([&] {
      EXPECT_EQ(stub_->SetLogLevels(&context, levels, &reply).error_code(),
                grpc::StatusCode::CANCELLED);
    });
    EXPECT_TRUE(isTaken());
    context.TryCancel();
    client.join();
    std::this_thread::sleep_for(200ms);
  }
  EXPECT_TRUE(isIdle());
  EXPECT_EQ(Mio::traceLevels("Controller"), before);
}

}  // namespace
}  // namespace ofswitch
