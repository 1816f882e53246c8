// SPDX-License-Identifier: BSD-3-Clause
//
// Whatever comes to the control door, packets pass and none is lost.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <random>
#include <thread>
#include <vector>

#include "tests/control_door/control_bench.h"
#include "tests/control_door/raw_call.h"
#include "tests/control_door/resident_bytes.h"
#include "tests/control_door/traffic.h"
#include "tests/support/kept_for_good.h"
#include "tests/support/time_limit.h"
#include "tests/switch/explosive_flows.h"
#include "utils/acl_build_memory.h"

namespace ofswitch {
namespace {

using namespace std::chrono_literals;

constexpr RawMethod kChangeFlows = kMethods[0];
constexpr RawMethod kGetTables = kMethods[2];
constexpr size_t kMiB = size_t{1} << 20;
constexpr char kPreface[] = "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n";

// A switch whose packets all go from port 1 to port 3.
class HostileTraffic : public testing::Test {
 protected:
  HostileTraffic() { control_.add("in_port=1,actions=output:3\n"); }

  bool isServed() const {
    return rawCall(control_.connect(), kGetTables, "",
                   openflow_test::timeLimit(10s))
        .status.ok();
  }

  int connectOnce() const {
    const int fd =
        socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    control_.socket().copy(address.sun_path, sizeof(address.sun_path) - 1);
    while (connect(fd, reinterpret_cast<sockaddr*>(&address),
                   sizeof(address)) != 0 &&
           errno == EAGAIN) {
      std::this_thread::sleep_for(1ms);  // others wait before it
    }
    return fd;
  }

  // Says it, hears out what the switch answers, if anything, and hangs up.
  void say(const std::string& bytes) const {
    const int fd = connectOnce();
    // A part of it may meet a closed connection.
    (void)!send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    shutdown(fd, SHUT_WR);
    pollfd answered{fd, POLLIN, 0};
    char buffer[4096];
    while (poll(&answered, 1, 5000) == 1 &&
           read(fd, buffer, sizeof(buffer)) > 0) {
    }
    close(fd);
  }

  void expectNoneLost(uint64_t sent) {
    EXPECT_GT(sent, 0);
    const pb::StatsReply stats = control_.bench().settled();
    EXPECT_EQ(stats.packets_received(), sent);
    EXPECT_EQ(stats.packets_sent(), sent);
    for (const pb::DropCause& cause : stats.drops()) {
      EXPECT_EQ(cause.packets(), 0) << cause.name();
    }
  }

  ControlBench control_{{.counters = 16384}};
};

TEST_F(HostileTraffic, PassesWhileGarbageComes) {
  std::mt19937 random(20240607);
  const auto garbage = [&random](size_t length) {
    std::string bytes(length, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random());
    return bytes;
  };
  Traffic traffic(&control_.bench());
  std::vector<int> silent;
  for (int round = 0; round < 40; round++) {
    silent.push_back(connectOnce());
    say(garbage(random() % 20'000));
    say(kPreface + garbage(random() % 2'000));
    // Frames whose head is right: length, type, flags, stream.
    std::string frames = kPreface + std::string("\0\0\0\4\0\0\0\0\0", 9);
    for (int i = 0; i < 20; i++) {
      const auto length = static_cast<char>(random() % 100);
      frames += std::string("\0\0", 2) + length +
                static_cast<char>(random() % 10) + static_cast<char>(random()) +
                std::string("\0\0\0\1", 4) +
                garbage(static_cast<size_t>(length));
    }
    say(frames);
    say("GET /metrics HTTP/1.1\r\nHost: switch\r\n\r\n");
    // The start of a TLS hello that never comes to its end.
    say("\x16\x03\x01\x02" + garbage(10));
  }
  EXPECT_TRUE(isServed());
  for (const int fd : silent) close(fd);
  expectNoneLost(traffic.end());
}

TEST_F(HostileTraffic, PassesWhileMessagesOf100MBAreRefused) {
  Traffic traffic(&control_.bench());
  const std::string tooLong(100'000'000, 'x');
  const auto refused = [&] {
    const RawAnswer answer = rawCall(control_.connect(), kChangeFlows, tooLong,
                                     openflow_test::timeLimit(60s));
    EXPECT_EQ(answer.status.error_code(), grpc::StatusCode::RESOURCE_EXHAUSTED);
    EXPECT_THAT(
        answer.status.error_message(),
        testing::HasSubstr("Received message larger than max (100000000 vs. "
                           "67109888)"));
  };
  refused();
  malloc_trim(0);
  const size_t before = residentBytes();
  for (int i = 0; i < 5; i++) refused();
  malloc_trim(0);
  EXPECT_LT(residentBytes(), before + 32 * kMiB);
  EXPECT_TRUE(isServed());
  expectNoneLost(traffic.end());
}

TEST_F(HostileTraffic, PassesWhileAClassifierWouldExplode) {
  const size_t limit = Dpdk::aclBuildLimit();
  Dpdk::setAclBuildLimit(64 * kMiB);
  const openflow_test::KeptForGood records;
  pb::FlowChange explosive;
  explosive.set_operation(pb::FLOW_OPERATION_ADD);
  explosive.set_text(openflow_test::explosiveFlows(1));
  Traffic traffic(&control_.bench());
  std::vector<pb::FlowChangeEvent> events;
  std::thread client([&] { events = control_.change(explosive); });
  EXPECT_TRUE(isServed());
  client.join();
  Dpdk::setAclBuildLimit(limit);
  EXPECT_TRUE(isServed());
  expectNoneLost(traffic.end());
  ASSERT_FALSE(events.empty());
  EXPECT_FALSE(events.back().reply().applied());
  EXPECT_THAT(events.back().reply().failure(),
              testing::StartsWith("table 1 IPv4: its classifier needs more "
                                  "than 64 MB to build (memory.build_mb)"));
  EXPECT_EQ(control_.dump().size(), 1);
}

TEST_F(HostileTraffic, PassesWhileAThousandClientsComeAtOnce) {
  constexpr int kThreads = 10;
  constexpr int kClients = 100;
  Traffic traffic(&control_.bench());
  std::vector<std::thread> threads;
  std::atomic<int> served = 0;
  for (int thread = 0; thread < kThreads; thread++) {
    threads.emplace_back([&] {
      std::vector<std::shared_ptr<grpc::Channel>> channels;
      for (int i = 0; i < kClients; i++) channels.push_back(control_.connect());
      for (const auto& channel : channels) {
        served +=
            rawCall(channel, kGetTables, "", openflow_test::timeLimit(60s))
                .status.ok();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(served, kThreads * kClients);
  expectNoneLost(traffic.end());
}

}  // namespace
}  // namespace ofswitch
