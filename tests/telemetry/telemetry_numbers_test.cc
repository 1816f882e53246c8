// SPDX-License-Identifier: BSD-3-Clause
// What the telemetry socket tells of a switch, number by number.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "packet_pool.h"
#include "switch/telemetry/dpdk_telemetry.h"
#include "tests/support/frame.h"
#include "tests/switch/live_bench.h"
#include "tests/telemetry/telemetry_client.h"

namespace ofswitch {
namespace {

using nlohmann::json;
using openflow_test::Frame;
using openflow_test::ip4;
using openflow_test::ip6;

Frame tcpTo(uint16_t port) {
  return Frame::eth().ipv4(ip4("10.0.0.1"), ip4("10.0.0.2")).tcp(1000, port);
}

// What is told of `one` beside its drops.
json withoutDrops(json one) {
  for (auto it = one.begin(); it != one.end();) {
    it = it.key().starts_with("drop_") ? one.erase(it) : std::next(it);
  }
  return one;
}

// A switch of whose numbers hardly two are the same, so that none can stand in
// for another one.
class NumbersOfASwitch : public testing::Test {
 protected:
  NumbersOfASwitch() {
    bench_.receive(1, tcpTo(80), 5);
    bench_.receive(1, tcpTo(81), 4);
    bench_.receive(1, tcpTo(23), 3);
    bench_.receive(2, Frame::eth().ipv6(ip6("::1"), ip6("::2")).udp(1, 2), 7);
    bench_.add(
        "idle_timeout=10,table=5,tcp,actions=drop\n"
        "hard_timeout=20,table=5,udp,actions=drop\n"
        "hard_timeout=20,table=5,icmp,actions=drop\n");
    bench_.pass(std::chrono::seconds(30));
    bench_->expireFlows();
    // The longest build, then the last one.
    std::string many;
    for (int i = 0; i < 400; i++) {
      many += fmt::format("table=4,udp,tp_dst={},actions=drop\n", i);
    }
    bench_.add(many);
    bench_.change(pb::FLOW_OPERATION_DELETE, "table=4,udp");
    all_ = bench_.settled();
  }

  LiveBench bench_{
      {.workers = 2,
       .flows = "table=0,priority=10,in_port=1,actions=goto_table:4\n"
                "table=0,priority=10,in_port=2,actions=goto_table:6\n"
                "table=4,priority=40,tcp,tp_dst=80,actions=output:3,output:9\n"
                "table=4,priority=40,tcp,tp_dst=81,actions=controller\n"
                "table=4,priority=40,ipv6,actions=drop\n",
       .dpdkTelemetry = true}};
  DpdkTelemetry telemetry_{bench_.live()};
  TelemetryClient client_;
  pb::StatsReply all_;
};

TEST_F(NumbersOfASwitch, AreToldByTheirNames) {
  const std::map<std::string, uint64_t> numbers = {
      {"flows", all_.flows()},
      {"flow_changes", all_.flow_changes()},
      {"expired_idle", all_.expired_idle()},
      {"expired_hard", all_.expired_hard()},
      {"packets_received", all_.packets_received()},
      {"bytes_received", all_.bytes_received()},
      {"packets_forwarded", all_.packets_forwarded()},
      {"copies_output", all_.copies_output()},
      {"bytes_sent", all_.bytes_sent()},
      {"buffers_total", all_.buffers_total()}};
  std::set<uint64_t> different;
  json expected = {{"packets_sent", 9},
                   {"packets_in_flight", 0},
                   {"workers", 2},
                   {"buffers_free", all_.buffers_free() - 1}};
  for (const auto& [name, number] : numbers) {
    expected[name] = number;
    different.insert(number);
  }
  EXPECT_EQ(different.size(), numbers.size());
  EXPECT_EQ(all_.expired_idle(), 1);
  EXPECT_EQ(all_.packets_received(), 19);
  bess::Packet* const packet = bess::PacketPool::Default()->Alloc(60);
  json stats = client_.ask("/ofswitch/stats");
  bess::Packet::Free(packet);
  EXPECT_LE(stats["uptime_seconds"], all_.uptime_ns() / 1'000'000'000 + 10);
  EXPECT_EQ(stats["drop_no_such_port"], 5);
  EXPECT_EQ(stats["drop_table_miss"], 3 + 7);  // of two tables
  stats.erase("uptime_seconds");
  EXPECT_EQ(withoutDrops(stats), expected);
}

TEST_F(NumbersOfASwitch, OfEachPort) {
  const pb::PortsReply ports = bench_->ports();
  for (const pb::Port& port : ports.ports()) {
    const json told =
        client_.ask(fmt::format("/ofswitch/ports,{}", port.port()));
    EXPECT_EQ(withoutDrops(told), json({{"name", port.name()},
                                        {"device", port.device()},
                                        {"driver", port.driver()},
                                        {"mac", port.mac()},
                                        {"link_up", port.link_up() ? 1 : 0},
                                        {"speed_mbps", port.speed_mbps()},
                                        {"mtu", port.mtu()},
                                        {"rx_queues", port.rx_queues()},
                                        {"tx_queues", port.tx_queues()},
                                        {"rx_packets", port.rx_packets()},
                                        {"rx_bytes", port.rx_bytes()},
                                        {"tx_packets", port.tx_packets()},
                                        {"tx_bytes", port.tx_bytes()}}));
    EXPECT_GT(port.drops_size(), 0);
    for (const pb::DropCause& drop : port.drops()) {
      EXPECT_EQ(told["drop_" + drop.name()], drop.packets());
    }
  }
  const json brief = client_.ask("/ofswitch/ports");
  EXPECT_EQ(brief["3"], json({{"name", "port3"},
                              {"link_up", 1},
                              {"rx_packets", 0},
                              {"tx_packets", 5},
                              {"dropped", 0}}));
}

TEST_F(NumbersOfASwitch, OfEachTable) {
  pb::TablesRequest request;
  request.set_all(true);
  const pb::TablesReply tables = bench_->tables(request);
  for (const pb::Table& table : tables.tables()) {
    const json told =
        client_.ask(fmt::format("/ofswitch/tables,{}", table.table()));
    EXPECT_EQ(told["flows"], table.flows());
    EXPECT_EQ(told["entered"], table.entered());
    EXPECT_EQ(told["matched"], table.matched());
    for (const auto& [family, one] :
         {std::pair("ipv4", table.ipv4()), std::pair("ipv6", table.ipv6())}) {
      EXPECT_EQ(told[family],
                json({{"rules", one.flows()},
                      {"builds", one.builds()},
                      {"failed_builds", one.failed_builds()},
                      {"last_build_us", one.last_build_ns() / 1000},
                      {"longest_build_us", one.longest_build_ns() / 1000},
                      {"total_build_us", one.total_build_ns() / 1000}}))
          << family << " " << table.table();
    }
    for (const pb::Table::Counter& counter : table.counters()) {
      EXPECT_EQ(told["module"][counter.name()], counter.value());
    }
    EXPECT_EQ(told.size(), 6u + static_cast<size_t>(table.drops_size()));
  }
  const json four = client_.ask("/ofswitch/tables,4");
  EXPECT_EQ(four["matched"], 9);
  EXPECT_EQ(four["entered"], 12);
  EXPECT_EQ(four["ipv4"]["builds"], 3);
  EXPECT_LT(four["ipv4"]["last_build_us"], four["ipv4"]["longest_build_us"]);
  EXPECT_LT(four["ipv4"]["longest_build_us"], four["ipv4"]["total_build_us"]);
  EXPECT_EQ(four["ipv6"]["rules"], 1);
  // One without flows is in use, too, when packets come to it.
  EXPECT_EQ(
      client_.ask("/ofswitch/tables"),
      json({{"0",
             {{"flows", 2}, {"entered", 19}, {"matched", 19}, {"dropped", 0}}},
            {"4",
             {{"flows", 3}, {"entered", 12}, {"matched", 9}, {"dropped", 3}}},
            {"6",
             {{"flows", 0}, {"entered", 7}, {"matched", 0}, {"dropped", 7}}}}));
}

TEST_F(NumbersOfASwitch, OfFlowsAndTheirAge) {
  const json flows = client_.ask("/ofswitch/flows,4,1");
  EXPECT_FALSE(flows.contains("0"));
  EXPECT_TRUE(flows.contains("1"));
  EXPECT_GE(flows["1"]["duration_seconds"], 30);
  EXPECT_LT(flows["1"]["duration_seconds"], 90);
}

// A table that waits for packets is in use.
TEST_F(NumbersOfASwitch, OfATableThatNothingHasEntered) {
  bench_.add("table=9,actions=drop");
  EXPECT_EQ(
      client_.ask("/ofswitch/tables")["9"],
      json({{"flows", 1}, {"entered", 0}, {"matched", 0}, {"dropped", 0}}));
}

// More copies than the ring of port 2 holds.
TEST(NumbersOfPorts, SayWhatDidNotLeave) {
  std::string flow = "in_port=1,actions=output:2";
  for (int i = 1; i < 64; i++) flow += ",output:2";
  LiveBench bench({.flows = flow, .dpdkTelemetry = true});
  const DpdkTelemetry telemetry(bench.live());
  bench.receiveAtOnce(1, std::vector<openflow_test::Bytes>(32, tcpTo(80)));
  bench.settled();
  uint64_t dropped = 0;
  const pb::PortsReply ports = bench->ports();
  for (const pb::DropCause& drop : ports.ports(2).drops()) {
    dropped += drop.packets();
  }
  EXPECT_GT(dropped, 1u);
  const json told = TelemetryClient().ask("/ofswitch/ports")["2"];
  EXPECT_EQ(told["dropped"], dropped);
  EXPECT_EQ(told["tx_packets"], 64 * 32 - dropped);
}

// Names are as long as one likes; an answer is not.
TEST(NumbersOfPorts, SayHowManyPortsItLeavesOut) {
  openflow_test::ScratchDir dir;
  SwitchConfig config;
  for (uint16_t i = 1; i <= 20; i++) {
    config.ports.push_back({i, std::string(900, static_cast<char>('a' + i)),
                            fmt::format("net_null{}", i), 2, 0});
  }
  config.workers = {-1};
  config.memoryMb = 256;
  config.module.path = MODULE;
  config.packetBuffers = 16383;
  config.dpdkTelemetry = true;
  LiveSwitch live(config);
  live.start();
  const DpdkTelemetry telemetry(live);
  const json ports = TelemetryClient().ask("/ofswitch/ports");
  size_t told = 0;
  for (int i = 0; i <= 20; i++) told += ports.contains(std::to_string(i));
  EXPECT_GT(told, 10);
  EXPECT_EQ(ports["ports_left_out"], 21 - told);
  const json port = TelemetryClient().ask("/ofswitch/ports,20");
  EXPECT_EQ(port["rx_queues"], 2);
  EXPECT_EQ(port["tx_queues"], 1);
  live.stop();
}

}  // namespace
}  // namespace ofswitch
