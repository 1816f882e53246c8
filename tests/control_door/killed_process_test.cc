// SPDX-License-Identifier: BSD-3-Clause
//
// A switch that is killed, whatever it is doing, and started again with the
// same configuration.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <grpcpp/grpcpp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <random>
#include <set>
#include <thread>

#include "switch.grpc.pb.h"
#include "tests/support/time_limit.h"
#include "tests/switch/running_switch.h"

namespace ofswitch {
namespace {

using namespace std::chrono_literals;
using openflow_test::timeLimit;

constexpr int kFlows = 200;

std::string manyFlows(int table, int first, int count) {
  std::string text;
  for (int i = first; i < first + count; i++) {
    text += fmt::format(
        "table={},priority={},tcp,nw_dst=10.{}.{}.0/24,tp_dst={},"
        "actions=dec_ttl,output:2\n",
        table, i % 500, i / 256, i % 256, i % 1000 + 1);
  }
  return text;
}

class KilledSwitch : public testing::Test {
 protected:
  KilledSwitch() {
    openflow_test::writeFile(dir_ / "flows.txt", manyFlows(0, 0, kFlows));
    openflow_test::writeFile(dir_ / "switch.yaml",
                             "ports:\n"
                             "  - {number: 1, device: net_null0}\n"
                             "  - {number: 2, device: net_null1}\n"
                             "memory: {mb: 256}\n"
                             "flows: flows.txt\n"
                             "control: {socket: control.sock}\n"
                             "metrics: false\n");
  }

  std::unique_ptr<RunningSwitch> start() {
    return std::make_unique<RunningSwitch>(dir_ / "switch.yaml", dir_ / "log");
  }

  bool isRunning(const RunningSwitch& process) const {
    return process.waitFor(
        fmt::format("running: 2 ports, 1 worker, {} flows\n", kFlows));
  }

  std::unique_ptr<pb::Switch::Stub> connect() const {
    grpc::ChannelArguments arguments;
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    return pb::Switch::NewStub(grpc::CreateCustomChannel(
        "unix:" + socket(), grpc::InsecureChannelCredentials(), arguments));
  }

  std::string socket() const { return dir_ / "control.sock"; }

  unsigned long socketInode() const {
    struct stat found {};
    EXPECT_EQ(stat(socket().c_str(), &found), 0);
    return S_ISSOCK(found.st_mode) ? found.st_ino : 0;
  }

  std::multiset<std::string> flows() const {
    std::multiset<std::string> all;
    grpc::ClientContext context;
    const auto client = connect();
    const auto reader = client->DumpFlows(&context, {});
    pb::FlowEntry entry;
    while (reader->Read(&entry)) all.insert(entry.flow());
    EXPECT_TRUE(reader->Finish().ok());
    return all;
  }

  openflow_test::ScratchDir dir_;
};

// Changes flows until the switch is gone; several tables and both families a
// request, so that most of the time an update is under way.
class Changer {
 public:
  explicit Changer(std::unique_ptr<pb::Switch::Stub> client)
      : client_(std::move(client)), thread_([this] { run(); }) {}
  ~Changer() { end(); }

  // Waits until the switch is gone. Answers how many of the classifiers of the
  // last request, of which more were to come, had been built by then.
  uint32_t end() {
    if (thread_.joinable()) thread_.join();
    return builtOfLast_;
  }

  // Whether so many requests have been answered, after at most 60 s.
  bool waitForAnswers(int count) const {
    const auto deadline = std::chrono::steady_clock::now() + 60s;
    while (answered_ < count) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(1ms);
    }
    return true;
  }

 private:
  void run() {
    for (int round = 1;; round++) {
      pb::FlowChange change;
      change.set_operation(round % 3 == 0 ? pb::FLOW_OPERATION_REPLACE
                                          : pb::FLOW_OPERATION_ADD);
      change.set_progress(true);
      change.set_text(manyFlows(0, round * 7, 100) +
                      manyFlows(1, round * 11, 100) +
                      fmt::format("table=2,ipv6,ipv6_dst=2001:db8:{:x}::/48,"
                                  "actions=drop\n",
                                  round % 65536));
      grpc::ClientContext context;
      const auto reader = client_->ChangeFlows(&context, change);
      pb::FlowChangeEvent event;
      bool applied = false;
      builtOfLast_ = 0;
      while (reader->Read(&event)) {
        applied = event.reply().applied();
        builtOfLast_ = event.progress().done();
      }
      if (!reader->Finish().ok()) return;
      if (applied) answered_++;
    }
  }

  std::unique_ptr<pb::Switch::Stub> client_;
  std::atomic<int> answered_ = 0;
  uint32_t builtOfLast_ = 0;  // the thread's
  std::thread thread_;
};

TEST_F(KilledSwitch, HasTheFlowsOfItsConfigurationAgain) {
  std::mt19937 random(20240607);
  auto process = start();
  ASSERT_TRUE(isRunning(*process)) << process->log();
  const std::multiset<std::string> first = flows();
  ASSERT_THAT(first, testing::SizeIs(kFlows));
  int halfway = 0;
  // Four at least, until one has come between the classifiers of one request.
  for (int round = 0; round < 4 || (halfway == 0 && round < 40); round++) {
    const unsigned long stale = socketInode();
    {
      Changer changer(connect());
      EXPECT_TRUE(changer.waitForAnswers(2)) << process->log();
      std::this_thread::sleep_for(
          std::chrono::microseconds(random() % 150'000));
      EXPECT_EQ(process->end(SIGKILL), -SIGKILL);
      if (changer.end() > 0) halfway++;
    }
    EXPECT_EQ(socketInode(), stale) << "nobody has removed it";
    process = start();
    ASSERT_TRUE(isRunning(*process)) << process->log();
    EXPECT_NE(socketInode(), 0);
    EXPECT_EQ(flows(), first);
  }
  EXPECT_GT(halfway, 0) << "none was killed in the middle of an update";
  EXPECT_EQ(process->end(SIGTERM), 0);
  EXPECT_FALSE(std::filesystem::exists(socket()));
}

TEST_F(KilledSwitch, StartsAlsoWhenItWasKilledAtItsStart) {
  std::mt19937 random(7);
  for (int round = 0; round < 4; round++) {
    const auto process = start();
    std::this_thread::sleep_for(
        timeLimit(std::chrono::milliseconds(random() % 400)));
    EXPECT_EQ(process->end(SIGKILL), -SIGKILL);
  }
  const auto process = start();
  ASSERT_TRUE(isRunning(*process)) << process->log();
  EXPECT_THAT(flows(), testing::SizeIs(kFlows));
  EXPECT_EQ(process->end(SIGTERM), 0);
}

}  // namespace
}  // namespace ofswitch
