// SPDX-License-Identifier: BSD-3-Clause
#include "switch/telemetry/metrics_server.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/frame.h"
#include "tests/support/time_limit.h"
#include "tests/switch/live_bench.h"
#include "tests/telemetry/http_get.h"
#include "tests/telemetry/metrics_text.h"

namespace ofswitch {
namespace {

using openflow_test::Bytes;
using openflow_test::Frame;
using openflow_test::ip4;
using openflow_test::ip6;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::SizeIs;

constexpr char kAny[] = "127.0.0.1:0";

Frame tcpTo(uint16_t port) {
  return Frame::eth().ipv4(ip4("10.0.0.1"), ip4("10.0.0.2")).tcp(1000, port);
}

MetricsText scrape(const MetricsServer& server) {
  const HttpAnswer answer =
      httpRequest(portOfUrl(server.url()), "GET", "/metrics");
  EXPECT_EQ(answer.status, 200);
  EXPECT_THAT(answer.headers, HasSubstr("Content-Type: text/plain"));
  return MetricsText(answer.body);
}

constexpr char kPolicy[] =
    "table=0,priority=10,in_port=1,actions=goto_table:4\n"
    "cookie=0x2a,table=4,priority=50,tcp,tp_dst=23,actions=drop\n"
    "table=4,priority=40,tcp,tp_dst=80,actions=dec_ttl,output:3\n"
    "table=4,priority=40,tcp,tp_dst=81,actions=output:3,output:9\n"
    "table=4,priority=40,tcp,tp_dst=82,actions=controller\n"
    "table=4,priority=30,ipv6,actions=mod_dl_dst:02:00:00:00:00:09,output:3\n";

TEST(MetricsServer, TellsExactlyWhatHappened) {
  LiveBench bench({.workers = 2, .flows = kPolicy});
  const MetricsServer server(bench.live(), kAny, 100);
  const Bytes frame = tcpTo(23);
  bench.receive(1, tcpTo(23), 3);
  bench.receive(1, tcpTo(80), 5);
  bench.receive(1, tcpTo(80).ttl(1), 2);
  bench.receive(1, tcpTo(81), 4);
  bench.receive(1, tcpTo(82), 1);
  bench.receive(1, tcpTo(99), 6);
  bench.receive(2, tcpTo(80), 7);  // no flow for port 2
  bench.settled();

  const MetricsText text = scrape(server);
  const auto length = static_cast<double>(frame.size());
  EXPECT_EQ(text.value("ofswitch_received_packets_total"), 28);
  EXPECT_EQ(text.value("ofswitch_received_bytes_total"), 28 * length);
  EXPECT_EQ(text.value("ofswitch_forwarded_packets_total"), 10);
  EXPECT_EQ(text.value("ofswitch_output_copies_total"), 14);
  EXPECT_EQ(text.value("ofswitch_sent_packets_total"), 10);
  EXPECT_EQ(text.value("ofswitch_in_flight_packets"), 0);
  EXPECT_EQ(text.value("ofswitch_account_discrepancies"), 0);
  EXPECT_EQ(
      text.value("ofswitch_output_drops_total", {{"cause", "no_such_port"}}),
      4);
  EXPECT_EQ(text.value("ofswitch_flows"), 6);
  EXPECT_EQ(text.value("ofswitch_workers"), 2);
  EXPECT_EQ(text.count("ofswitch_worker_running"), 2);
  EXPECT_EQ(
      text.value("ofswitch_worker_running", {{"worker", "1"}, {"core", "any"}}),
      1);
  EXPECT_GT(text.value("ofswitch_worker_task_runs_total", {{"worker", "0"}}),
            0);
  EXPECT_EQ(text.value("ofswitch_packet_buffers"), 16383);
  EXPECT_GT(text.value("ofswitch_uptime_seconds"), 0);
  EXPECT_EQ(text.value("ofswitch_build_info"), 1);

  using Labels = MetricsText::Labels;
  EXPECT_THAT(text.labelValues("ofswitch_table_flows", "table"),
              ElementsAre("0", "4"));
  EXPECT_EQ(
      text.value("ofswitch_table_entered_packets_total", {{"table", "0"}}), 28);
  EXPECT_EQ(
      text.value("ofswitch_table_matched_packets_total", {{"table", "0"}}), 21);
  EXPECT_EQ(
      text.value("ofswitch_table_entered_packets_total", {{"table", "4"}}), 21);
  EXPECT_EQ(
      text.value("ofswitch_table_matched_packets_total", {{"table", "4"}}), 15);
  const auto dropped = [&](const char* table, const char* cause) {
    return text.value("ofswitch_table_dropped_packets_total",
                      {{"table", table}, {"cause", cause}});
  };
  EXPECT_EQ(dropped("0", "table_miss"), 7);
  EXPECT_EQ(dropped("4", "table_miss"), 6);
  EXPECT_EQ(dropped("4", "drop_action"), 3);
  EXPECT_EQ(dropped("4", "ttl_expired"), 2);
  EXPECT_THAT(text.labelValues("ofswitch_table_module_events_total", "counter"),
              SizeIs(12));
  // Of the flow that says drop, the guard and the built-in flow.
  EXPECT_EQ(text.value("ofswitch_table_module_events_total",
                       {{"table", "4"}, {"counter", "dropActions"}}),
            3 + 2 + 6);

  EXPECT_EQ(text.value("ofswitch_classifier_rules",
                       {{"table", "0"}, {"family", "ipv4"}}),
            2);  // with the one that drops what misses
  EXPECT_EQ(text.value("ofswitch_classifier_builds_total",
                       {{"table", "4"}, {"family", "ipv6"}}),
            1);
  EXPECT_GT(text.value("ofswitch_classifier_build_seconds_total",
                       {{"table", "4"}, {"family", "ipv4"}}),
            0);
  EXPECT_LT(text.value("ofswitch_classifier_longest_build_seconds",
                       {{"table", "4"}, {"family", "ipv4"}}),
            60);

  const Labels telnet = {{"table", "4"},
                         {"priority", "50"},
                         {"cookie", "0x2a"},
                         {"match", "tcp,tp_dst=23"}};
  EXPECT_EQ(text.value("ofswitch_flow_packets_total", telnet), 3);
  EXPECT_EQ(text.value("ofswitch_flow_bytes_total", telnet), 3 * length);
  EXPECT_EQ(text.value("ofswitch_flow_packets_total",
                       {{"match", "tcp,tp_dst=80"}, {"cookie", "0x0"}}),
            7);
  EXPECT_EQ(text.count("ofswitch_flow_packets_total"), 6);
  EXPECT_EQ(text.value("ofswitch_flows_without_series"), 0);

  const Labels one = {{"port", "1"}, {"name", "port1"}};
  EXPECT_EQ(text.value("ofswitch_port_receive_packets_total", one), 21);
  EXPECT_EQ(text.value("ofswitch_port_receive_bytes_total", one), 21 * length);
  EXPECT_EQ(text.value("ofswitch_port_transmit_packets_total", {{"port", "3"}}),
            9);
  EXPECT_EQ(text.value("ofswitch_port_transmit_bytes_total", {{"port", "3"}}),
            9 * length);
  EXPECT_EQ(text.value("ofswitch_port_transmit_packets_total", {{"port", "0"}}),
            1);
  EXPECT_EQ(text.value("ofswitch_port_info",
                       {{"port", "1"}, {"device", "net_ring1"}}),
            1);
  EXPECT_EQ(text.value("ofswitch_port_up", one), 1);
  EXPECT_EQ(text.value("ofswitch_port_dropped_packets_total",
                       {{"port", "3"}, {"cause", "tx_queue_full"}}),
            0);
}

// Whoever writes a rule on a series must find it in the manual.
TEST(MetricsServer, EveryFamilyIsThereAndInTheManual) {
  LiveBench bench({});
  const MetricsServer server(bench.live(), kAny, 100);
  const std::string manual =
      openflow_test::readFile(SOURCE_DIR "/docs/telemetry.md");
  const MetricsText text = scrape(server);
  size_t families = 0;
  for (const auto& [name, family] : text.families()) {
    if (!name.starts_with("ofswitch_")) continue;
    families++;
    EXPECT_THAT(manual, HasSubstr("`" + name + "`"));
    EXPECT_THAT(family.help, testing::EndsWith(".")) << name;
  }
  EXPECT_EQ(families, 44);
}

TEST(MetricsServer, FlowsBeyondTheLimitAreCounted) {
  std::string flows;
  for (int i = 0; i < 30; i++) {
    flows += fmt::format("priority={},tcp,tp_dst={},actions=output:3\n", i, i);
  }
  LiveBench bench({.flows = flows});
  const MetricsServer server(bench.live(), kAny, 20);
  MetricsText text = scrape(server);
  EXPECT_EQ(text.value("ofswitch_flows"), 30);
  EXPECT_EQ(text.count("ofswitch_flow_packets_total"), 20);
  EXPECT_EQ(text.value("ofswitch_flows_without_series"), 10);
  // Those that come first in a listing.
  EXPECT_EQ(text.count("ofswitch_flow_packets_total", {{"priority", "29"}}), 1);
  EXPECT_EQ(text.count("ofswitch_flow_packets_total", {{"priority", "10"}}), 1);
  EXPECT_EQ(text.count("ofswitch_flow_packets_total", {{"priority", "9"}}), 0);

  bench.change(pb::FLOW_OPERATION_DELETE, "");
  text = scrape(server);
  EXPECT_EQ(text.value("ofswitch_flows"), 0);
  EXPECT_EQ(text.count("ofswitch_flow_packets_total"), 0);
  EXPECT_EQ(text.value("ofswitch_flows_without_series"), 0);
  EXPECT_EQ(text.value("ofswitch_classifier_builds_total",
                       {{"table", "0"}, {"family", "ipv4"}}),
            2);
}

// Series of counters that were there before, all of them.
void expectOnlyGrowth(const MetricsText& before, const MetricsText& after) {
  for (const auto& [name, family] : before.families()) {
    if (family.type != "counter" || name.starts_with("ofswitch_flow_")) {
      continue;
    }
    for (const auto& [labels, value] : family.samples) {
      EXPECT_GE(after.value(name, labels), value)
          << name << testing::PrintToString(labels);
    }
  }
}

TEST(MetricsServer, ManyScrapeWhileFlowsChangeUnderTraffic) {
  LiveBench bench({.workers = 2, .flows = kPolicy});
  const MetricsServer server(bench.live(), kAny, 100);
  std::atomic<bool> done = false;
  std::atomic<int> scrapes = 0;
  std::vector<std::thread> scrapers;
  for (int i = 0; i < 3; i++) {
    scrapers.emplace_back([&] {
      MetricsText before = scrape(server);
      while (!done) {
        MetricsText after = scrape(server);
        expectOnlyGrowth(before, after);
        before = after;
        scrapes++;
      }
    });
  }
  std::thread traffic([&] {
    const std::vector<Bytes> frames(64, tcpTo(80));
    while (!done) bench.receive(1, frames);
  });
  for (int round = 0; round < 60 || scrapes < 30; round++) {
    EXPECT_TRUE(bench
                    .add(fmt::format("table=4,tcp,tp_dst={},actions=drop\n"
                                     "table=5,udp,tp_src={},actions=drop\n",
                                     round % 7, round))
                    .applied());
    if (round % 3 == 0) {
      bench.change(pb::FLOW_OPERATION_DELETE, "table=5");
    }
  }
  done = true;
  traffic.join();
  for (std::thread& scraper : scrapers) scraper.join();
  const pb::StatsReply stats = bench.settled();
  EXPECT_EQ(scrape(server).value("ofswitch_received_packets_total"),
            static_cast<double>(stats.packets_received()));
}

TEST(MetricsServer, ServesNothingElse) {
  LiveBench bench({});
  const MetricsServer server(bench.live(), kAny, 100);
  const uint16_t port = portOfUrl(server.url());
  for (const char* path : {"/", "/etc/passwd", "/../../../../etc/passwd", "//",
                           "/%2e%2e/etc/passwd"}) {
    EXPECT_EQ(httpRequest(port, "GET", path).status, 404) << path;
  }
  for (const char* method : {"POST", "PUT", "DELETE", "PATCH"}) {
    const HttpAnswer answer = httpRequest(port, method, "/metrics");
    EXPECT_GE(answer.status, 400) << method;
    EXPECT_THAT(answer.body, Not(HasSubstr("ofswitch_"))) << method;
  }
  // None of this hurts.
  sendAndReset(port, "GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n");
  sendAndReset(port, "GET /metr");
  sendAndReset(port, std::string(100'000, '\0'));
  EXPECT_EQ(scrape(server).value("ofswitch_build_info"), 1);
}

// A connection to a port of this machine.
class Visitor {
 public:
  explicit Visitor(uint16_t port)
      : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in where{};
    where.sin_family = AF_INET;
    where.sin_port = htons(port);
    where.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(
        connect(fd_, reinterpret_cast<const sockaddr*>(&where), sizeof(where)),
        0);
  }
  ~Visitor() { close(fd_); }
  Visitor(const Visitor&) = delete;
  Visitor& operator=(const Visitor&) = delete;

 private:
  const int fd_;
};

TEST(MetricsServer, AnswersWhileOthersSayNothing) {
  LiveBench bench({});
  const MetricsServer server(bench.live(), kAny, 100);
  const Visitor first(portOfUrl(server.url()));
  const Visitor second(portOfUrl(server.url()));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(scrape(server).value("ofswitch_build_info"), 1);
  EXPECT_LT(std::chrono::steady_clock::now() - start,
            openflow_test::timeLimit(std::chrono::seconds(4)))
      << "for whom it waits five";
}

// Nor does looking whether there is an obstacle.
TEST(MetricsServer, LeavesNoDescriptorBehind) {
  LiveBench bench({});
  const auto descriptors = [] {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
  };
  constexpr int kRounds = 8;
  const auto before = descriptors();
  for (int i = 0; i < kRounds; i++) {
    const MetricsServer server(bench.live(), kAny, 100);
    EXPECT_EQ(metricsObstacle(server.url().substr(7, server.url().size() - 15)),
              "Address already in use");
  }
  // The libraries may keep some for themselves.
  EXPECT_LT(descriptors(), before + kRounds);
  for (const char* free : {kAny, "", "nonsense", "localhost:0"}) {
    EXPECT_EQ(metricsObstacle(free), "") << free;
  }
}

TEST(MetricsServer, StopsAtOnceAndGivesThePortBack) {
  LiveBench bench({});
  auto server = std::make_unique<MetricsServer>(bench.live(), kAny, 100);
  const std::string url = server->url();
  const auto start = std::chrono::steady_clock::now();
  server.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - start,
            openflow_test::timeLimit(std::chrono::milliseconds(500)));
  EXPECT_THROW(httpRequest(portOfUrl(url), "GET", "/metrics"),
               std::runtime_error);
  const MetricsServer next(bench.live(),
                           fmt::format("127.0.0.1:{}", portOfUrl(url)), 100);
  EXPECT_EQ(scrape(next).value("ofswitch_build_info"), 1);
}

TEST(MetricsServer, HasNothingToTellOfAStoppedSwitch) {
  LiveBench bench({});
  const MetricsServer server(bench.live(), kAny, 100);
  bench.stop();
  EXPECT_EQ(scrape(server).families().count("ofswitch_flows"), 0);
}

std::string errorOf(const LiveBench& bench, const std::string& address) {
  try {
    const MetricsServer server(const_cast<LiveBench&>(bench).live(), address,
                               1);
    return "listens on " + server.url();
  } catch (const StartError& error) {
    return error.what();
  }
}

TEST(MetricsServer, SaysWhyItCannotListen) {
  LiveBench bench({});
  const MetricsServer first(bench.live(), kAny, 100);
  const int port = portOfUrl(first.url());
  EXPECT_EQ(errorOf(bench, fmt::format("127.0.0.1:{}", port)),
            fmt::format("metrics: cannot listen on 127.0.0.1:{}: Address "
                        "already in use; give another address, such as "
                        "\"metrics: 127.0.0.1:{}\", or \"metrics: false\"",
                        port, port + 1));
  const std::string last = "127.0.0.1:65535";
  const MetricsServer onLast(bench.live(), last, 100);
  EXPECT_THAT(errorOf(bench, last), HasSubstr("\"metrics: 127.0.0.1:65534\""))
      << "there is none behind it";
  for (const char* address : {"0.0.0.0:0", "192.0.2.1:9469", "[::1]:9469",
                              "localhost", ":9469", ""}) {
    EXPECT_EQ(errorOf(bench, address),
              fmt::format("metrics: \"{}\" is no loopback address", address));
  }
  EXPECT_THAT(errorOf(bench, "127.0.0.2:0"),
              MatchesRegex("listens on http://127.0.0.2:[0-9]+/metrics"));
}

}  // namespace
}  // namespace ofswitch
