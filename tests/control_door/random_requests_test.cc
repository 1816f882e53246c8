// SPDX-License-Identifier: BSD-3-Clause
#include "tests/control_door/random_requests.h"

#include <google/protobuf/stubs/logging.h>
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <string_view>
#include <thread>

#include "tests/control_door/control_bench.h"
#include "tests/control_door/resident_bytes.h"
#include "tests/control_door/traffic.h"
#include "tests/support/time_limit.h"

namespace ofswitch {
namespace {

using namespace std::chrono_literals;

constexpr int kRequests = 6000;
constexpr unsigned kClients = 3;

using Answers = std::map<int, int>;  // by status code

// A damaged request may ask for what has no end.
bool followsTheLog(const RandomRequests::Request& request) {
  pb::LogRequest log;
  const google::protobuf::LogSilencer noComplaints;
  return std::string_view(request.method.name).ends_with("/ReadLog") &&
         log.ParseFromString(request.bytes) && log.follow();
}

Answers sendRandom(const ControlBench& control, uint32_t seed, int count) {
  const auto channel = control.connect();
  RandomRequests requests(seed);
  Answers answers;
  for (int i = 0; i < count; i++) {
    const RandomRequests::Request request = requests.next();
    const bool isEndless = followsTheLog(request);
    const RawAnswer answer =
        rawCall(channel, request.method, request.bytes,
                isEndless ? 200ms : openflow_test::timeLimit(60000ms));
    const int code = answer.status.error_code();
    answers[code]++;
    EXPECT_EQ(code == grpc::StatusCode::DEADLINE_EXCEEDED, isEndless)
        << request.method.name << ", request " << i << " of seed " << seed;
    EXPECT_NE(code, grpc::StatusCode::UNAVAILABLE) << request.method.name;
    EXPECT_NE(code, grpc::StatusCode::INTERNAL)
        << request.method.name << ": " << answer.status.error_message()
        << ", request " << i << " of seed " << seed;
    EXPECT_NE(code, grpc::StatusCode::UNKNOWN) << request.method.name;
  }
  return answers;
}

TEST(RandomRequests, AreAllAnsweredWhilePacketsFlow) {
  ControlBench control({.flows = "in_port=1,actions=output:3\n"});
  // What is made once and kept.
  sendRandom(control, 1, 500);
  const size_t before = residentBytes();
  Traffic traffic(&control.bench());
  std::vector<Answers> answers(kClients);
  std::vector<std::thread> clients;
  for (unsigned i = 0; i < kClients; i++) {
    clients.emplace_back([&, i] {
      answers[i] = sendRandom(control, 100 + i, kRequests / kClients);
    });
  }
  for (std::thread& client : clients) client.join();
  const uint64_t sent = traffic.end();
  EXPECT_GT(sent, 10'000);

  Answers all;
  for (const Answers& part : answers) {
    for (const auto& [code, count] : part) all[code] += count;
  }
  // Enough of them got past the first look.
  EXPECT_GT(all[grpc::StatusCode::OK], kRequests / 4);
  EXPECT_GT(all[grpc::StatusCode::INVALID_ARGUMENT], kRequests / 20);

  const pb::StatsReply stats = control.bench().settled();
  EXPECT_EQ(stats.packets_received(), sent);
  EXPECT_EQ(LiveBench::drops(stats, "no_buffer_for_output"), 0);
  EXPECT_GT(stats.flow_changes(), 20);
  // The log of port 3's file and the flows that were added are in it.
  EXPECT_LT(residentBytes(), before + (size_t{32} << 20));
  EXPECT_TRUE(rawCall(control.connect(),
                      {"/ofswitch.pb.Switch/GetStats", false}, "",
                      openflow_test::timeLimit(10s))
                  .status.ok());
}

}  // namespace
}  // namespace ofswitch
