// SPDX-License-Identifier: BSD-3-Clause
//
// Clients that are wrong, many, slow or mean.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "switch/live/flow_request.h"
#include "tests/control_door/control_bench.h"
#include "tests/control_door/raw_call.h"
#include "tests/control_door/resident_bytes.h"
#include "tests/support/frame.h"
#include "tests/support/time_limit.h"
#include "tests/support/unix_client.h"

namespace ofswitch {
namespace {

using namespace std::chrono_literals;
using openflow_test::Frame;
using openflow_test::ip4;
using openflow_test::timeLimit;
using testing::HasSubstr;
using testing::SizeIs;

constexpr RawMethod kChangeFlows = kMethods[0];
constexpr RawMethod kGetTables = kMethods[2];

constexpr size_t kMiB = size_t{1} << 20;

bool isServed(ControlBench* control) {
  return rawCall(control->connect(), kGetTables, "", timeLimit(10s))
      .status.ok();
}

TEST(HostileClients, MessagesAboveTheLimitAreRefused) {
  ControlBench control;
  const auto channel = control.connect();
  const RawAnswer tooLong = rawCall(
      channel, kChangeFlows, std::string(65 * kMiB, 'x'), timeLimit(60s));
  EXPECT_EQ(tooLong.status.error_code(), grpc::StatusCode::RESOURCE_EXHAUSTED);
  const RawAnswer question =
      rawCall(channel, kGetTables, std::string(70'000, '\0'), timeLimit(60s));
  EXPECT_EQ(question.status.error_code(), grpc::StatusCode::RESOURCE_EXHAUSTED);
  EXPECT_EQ(question.status.error_message(),
            "the request has 70000 bytes, at most 65536 are taken");
  EXPECT_TRUE(isServed(&control));
}

// Thirty million empty messages in sixty million bytes, and the like: parsed,
// each would take gigabytes.
TEST(HostileClients, RequestsThatUnfoldAreRefusedBeforeTheyAreParsed) {
  ControlBench control;
  const auto channel = control.connect();
  const auto repeat = [](const std::string& part, size_t bytes) {
    std::string all;
    all.reserve(bytes + part.size());
    while (all.size() < bytes) all += part;
    return all;
  };
  const std::string emptyFlows = repeat({'\x22', '\0'}, 60 * kMiB);
  const std::string unknownFields = repeat({'\xf8', '\x01', '\0'}, 60 * kMiB);
  const size_t before = residentBytes();
  for (const std::string* request : {&emptyFlows, &unknownFields}) {
    const RawAnswer answer =
        rawCall(channel, kChangeFlows, *request, timeLimit(60s));
    EXPECT_EQ(answer.status.error_code(), grpc::StatusCode::RESOURCE_EXHAUSTED);
    EXPECT_EQ(answer.status.error_message(),
              "the request has more than 4000000 fields");
  }
  EXPECT_LT(residentBytes(), before + 300 * kMiB);
  EXPECT_TRUE(isServed(&control));
}

TEST(HostileClients, MalformedMessagesAreRefused) {
  ControlBench control;
  const auto channel = control.connect();
  std::string deep;
  // A FlowMessage in a FlowChange ends at its fields; groups go on forever.
  for (int i = 0; i < 20'000; i++) deep += '\x0b';
  for (const std::string& bytes :
       {std::string("\x22\x05xx"), std::string("\xff"), deep,
        std::string(11, '\xff')}) {
    const RawAnswer answer =
        rawCall(channel, kChangeFlows, bytes, timeLimit(10s));
    EXPECT_EQ(answer.status.error_code(), grpc::StatusCode::INVALID_ARGUMENT);
    EXPECT_EQ(answer.status.error_message(),
              "the bytes of the request are no FlowChange");
    EXPECT_EQ(answer.messages, 0);
  }
  EXPECT_EQ(rawCall(channel, kChangeFlows, "\x12\x02\xc3\x28", timeLimit(10s))
                .status.error_message(),
            "text is not in UTF-8");
}

FlowRequest readRequest(pb::FlowOperation operation, std::string text,
                        bool strict = false) {
  pb::FlowChange change;
  change.set_operation(operation);
  change.set_text(std::move(text));
  change.set_strict(strict);
  return readFlowRequest(change);
}

std::string lines(const std::string& line, size_t count) {
  std::string text;
  text.reserve((line.size() + 1) * count);
  for (size_t i = 0; i < count; i++) text += line + "\n";
  return text;
}

TEST(HostileClients, ManyWrongLinesAreNotAllRefusedOneByOne) {
  const FlowRequest add =
      readRequest(pb::FLOW_OPERATION_ADD, lines("x", 2'000'000));
  ASSERT_THAT(add.refusals, SizeIs(1001));
  EXPECT_EQ(add.refusals.back().text(),
            "request:1000: too many lines are refused; the rest is not read");
  EXPECT_THAT(
      readRequest(pb::FLOW_OPERATION_DELETE, lines("x", 2'000'000)).refusals,
      SizeIs(1000));
}

TEST(HostileClients, ThereAreLimitsToOneRequest) {
  const FlowRequest loose =
      readRequest(pb::FLOW_OPERATION_DELETE, lines("tcp", 1001));
  ASSERT_THAT(loose.refusals, SizeIs(1));
  EXPECT_EQ(loose.refusals[0].text(),
            "request:1001: at most 1000 filters are taken at once");
  EXPECT_TRUE(
      readRequest(pb::FLOW_OPERATION_DELETE, lines("tcp", 1001), true).ok());

  const FlowRequest longLine = readRequest(
      pb::FLOW_OPERATION_ADD, std::string(300'000, 'x') + "\nactions=drop\n");
  ASSERT_THAT(longLine.refusals, SizeIs(1));
  EXPECT_EQ(longLine.refusals[0].text(),
            "request:1: the line has 300000 characters, at most 262144 are "
            "taken");

  const FlowRequest longWord = readRequest(
      pb::FLOW_OPERATION_ADD, "actions=drop\n" + lines("\u00e4", 1) +
                                  "nw_src=" + std::string(100'000, 'y') +
                                  ",actions=drop\n");
  ASSERT_THAT(longWord.refusals, SizeIs(2));
  EXPECT_LE(longWord.refusals[1].reason.size(), 503);

  pb::FlowChange change;
  change.set_operation(pb::FLOW_OPERATION_ADD);
  change.set_text_name(std::string(10'000, 'n') + "\u00e4.txt");
  change.set_text("x");
  const FlowRequest named = readFlowRequest(change);
  ASSERT_THAT(named.refusals, SizeIs(1));
  EXPECT_LE(named.refusals[0].file.size(), 255);
  EXPECT_THAT(named.refusals[0].file, HasSubstr("nn\u00e4.txt"));
}

TEST(HostileClients, GarbageEndsTheConnectionAlone) {
  ControlBench control;
  for (const std::string& bytes :
       {std::string("GET / HTTP/1.1\r\n\r\n"), std::string(100'000, '\xff'),
        std::string("PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n") +
            std::string(5000, '\0'),
        std::string("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", 11)}) {
    const openflow_test::UnixClient client(control.socket());
    client.say(bytes);
    shutdown(client.fd(), SHUT_WR);
    char buffer[4096];
    while (read(client.fd(), buffer, sizeof(buffer)) > 0) {
    }
  }
  EXPECT_TRUE(isServed(&control));
}

TEST(HostileClients, WhoStopsReadingCostsLittleAndHoldsUpNobody) {
  constexpr int kFlows = 4000;
  constexpr size_t kClients = 100;
  ControlBench control({.counters = 1 << 16});
  std::string text;
  for (int i = 0; i < kFlows; i++) {
    text += fmt::format("priority={},tcp,tp_dst={},actions=drop\n", 60000 - i,
                        i + 1);
  }
  control.add(text);

  struct Client {
    std::unique_ptr<pb::Switch::Stub> stub;
    grpc::ClientContext context;
    std::unique_ptr<grpc::ClientReader<pb::FlowEntry>> reader;
  };
  const size_t before = residentBytes();
  std::vector<std::unique_ptr<Client>> clients;
  pb::FlowEntry entry;
  for (size_t i = 0; i < kClients; i++) {
    auto client = std::make_unique<Client>();
    client->stub = pb::Switch::NewStub(control.connect());
    client->reader = client->stub->DumpFlows(&client->context, {});
    ASSERT_TRUE(client->reader->Read(&entry));
    clients.push_back(std::move(client));
  }
  std::this_thread::sleep_for(500ms);  // for those who would grow
  // All listings together are more than 150 MiB. Both ends of each connection
  // have their windows and buffers in this process.
  EXPECT_LT(residentBytes(), before + 75 * kMiB);

  const auto start = std::chrono::steady_clock::now();
  EXPECT_THAT(control.dump(), SizeIs(kFlows));
  control.add("table=1,actions=drop\n");
  EXPECT_LT(std::chrono::steady_clock::now() - start, timeLimit(10s));

  // One that reads on gets what there was when it asked.
  int left = 0;
  while (clients[7]->reader->Read(&entry)) left++;
  EXPECT_EQ(left, kFlows - 1);
  EXPECT_TRUE(clients[7]->reader->Finish().ok());
  // The door closes although the others still do not read.
  const auto stop = std::chrono::steady_clock::now();
  control.door().stop();
  EXPECT_LT(std::chrono::steady_clock::now() - stop, timeLimit(2s));
  for (auto& client : clients) {
    if (client == clients[7]) continue;
    while (client->reader->Read(&entry)) {
    }
    EXPECT_FALSE(client->reader->Finish().ok());
  }
}

// A call that does not end before it is cancelled.
struct Follower {
  explicit Follower(const std::shared_ptr<grpc::Channel>& channel)
      : stub(pb::Switch::NewStub(channel)) {
    pb::LogRequest request;
    request.set_follow(true);
    request.set_max_level(5);
    request.set_last(1);
    reader = stub->ReadLog(&context, request);
  }

  std::unique_ptr<pb::Switch::Stub> stub;
  grpc::ClientContext context;
  std::unique_ptr<grpc::ClientReader<pb::LogEntry>> reader;
};

TEST(HostileClients, OneConnectionHasSoManyCallsAndNoMore) {
  constexpr size_t kCalls = 128;
  ControlBench control;
  control.add("actions=drop\n");
  const auto channel = control.connect();
  std::vector<std::unique_ptr<Follower>> clients;
  pb::LogEntry entry;
  for (size_t i = 0; i < kCalls; i++) {
    clients.push_back(std::make_unique<Follower>(channel));
    ASSERT_TRUE(clients.back()->reader->Read(&entry)) << i;
  }
  EXPECT_EQ(rawCall(channel, kGetTables, "", 500ms).status.error_code(),
            grpc::StatusCode::DEADLINE_EXCEEDED);
  EXPECT_TRUE(isServed(&control)) << "on a connection of its own";
  clients.front()->context.TryCancel();
  EXPECT_TRUE(rawCall(channel, kGetTables, "", timeLimit(10s)).status.ok());
  for (auto& client : clients) client->context.TryCancel();
  control.door().stop();
}

TEST(HostileClients, AThousandFollowTheLogWhileOthersAreServed) {
  constexpr size_t kClients = 1000;
  ControlBench control;
  std::vector<std::unique_ptr<Follower>> clients;
  for (size_t i = 0; i < kClients; i++) {
    clients.push_back(std::make_unique<Follower>(control.connect()));
  }
  pb::LogEntry entry;
  for (auto& client : clients) ASSERT_TRUE(client->reader->Read(&entry));
  control.add("actions=drop\n");
  for (auto& client : clients) ASSERT_TRUE(client->reader->Read(&entry));
  EXPECT_TRUE(isServed(&control));
  for (auto& client : clients) client->context.TryCancel();
  for (auto& client : clients) {
    while (client->reader->Read(&entry)) {
    }
    EXPECT_EQ(client->reader->Finish().error_code(),
              grpc::StatusCode::CANCELLED);
  }
  control.door().stop();
}

}  // namespace
}  // namespace ofswitch
