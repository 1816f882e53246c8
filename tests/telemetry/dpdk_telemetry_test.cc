// SPDX-License-Identifier: BSD-3-Clause
// Speaks to the socket as dpdk-telemetry.py does.
#include "switch/telemetry/dpdk_telemetry.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rte_ethdev.h>
#include <unistd.h>

#include <atomic>
#include <nlohmann/json.hpp>
#include <thread>

#include "platform/quil_modules/counter_db.h"
#include "tests/support/frame.h"
#include "tests/switch/live_bench.h"
#include "tests/telemetry/telemetry_client.h"

namespace ofswitch {
namespace {

using nlohmann::json;
using openflow_test::Frame;
using openflow_test::ip4;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsSupersetOf;

Frame tcpTo(uint16_t port) {
  return Frame::eth().ipv4(ip4("10.0.0.1"), ip4("10.0.0.2")).tcp(1000, port);
}

constexpr char kPolicy[] =
    "table=0,priority=10,in_port=1,actions=goto_table:4\n"
    "cookie=0x2a,table=4,priority=50,tcp,tp_dst=23,actions=drop\n"
    "table=4,priority=40,tcp,tp_dst=80,actions=dec_ttl,output:3,controller\n";

LiveBench::Options withTelemetry(const std::string& flows = kPolicy) {
  return {.flows = flows, .dpdkTelemetry = true};
}

// A device's link is down while it lives.
class LinkDown {
 public:
  explicit LinkDown(const char* name) {
    EXPECT_EQ(rte_eth_dev_get_port_by_name(name, &device_), 0);
    EXPECT_EQ(rte_eth_dev_set_link_down(device_), 0);
  }
  ~LinkDown() { EXPECT_EQ(rte_eth_dev_set_link_up(device_), 0); }
  LinkDown(const LinkDown&) = delete;
  LinkDown& operator=(const LinkDown&) = delete;

 private:
  uint16_t device_ = RTE_MAX_ETHPORTS;
};

TEST(DpdkTelemetry, TellsWhichLinksAreUp) {
  LiveBench bench(withTelemetry());
  const DpdkTelemetry telemetry(bench.live());
  const LinkDown down("net_ring2");
  const TelemetryClient client;
  const json ports = client.ask("/ofswitch/ports");
  EXPECT_EQ(ports["1"]["link_up"], 1);
  EXPECT_EQ(ports["2"]["link_up"], 0);
  EXPECT_EQ(client.ask("/ofswitch/ports,1")["link_up"], 1);
  EXPECT_EQ(client.ask("/ofswitch/ports,2")["link_up"], 0);
}

TEST(DpdkTelemetry, TellsExactlyWhatHappened) {
  LiveBench bench(withTelemetry());
  const DpdkTelemetry telemetry(bench.live());
  const size_t length = openflow_test::Bytes(tcpTo(23)).size();
  bench.receive(1, tcpTo(23), 3);
  bench.receive(1, tcpTo(80), 5);
  bench.receive(1, tcpTo(80).ttl(1), 2);
  bench.receive(2, tcpTo(80), 7);  // no flow for port 2
  bench.settled();

  const TelemetryClient client;
  EXPECT_THAT(client.ask("/").get<std::vector<std::string>>(),
              IsSupersetOf({"/ofswitch/stats", "/ofswitch/ports",
                            "/ofswitch/tables", "/ofswitch/flows"}));
  const json stats = client.ask("/ofswitch/stats");
  EXPECT_EQ(stats["packets_received"], 17);
  EXPECT_EQ(stats["bytes_received"], 17 * length);
  EXPECT_EQ(stats["packets_forwarded"], 5);
  EXPECT_EQ(stats["packets_sent"], 10);
  EXPECT_EQ(stats["drop_table_miss"], 7);
  EXPECT_EQ(stats["drop_drop_action"], 3);
  EXPECT_EQ(stats["drop_ttl_expired"], 2);
  EXPECT_EQ(stats["flows"], 3);
  EXPECT_EQ(stats["workers"], 1);

  const json ports = client.ask("/ofswitch/ports");
  EXPECT_EQ(ports.size(), 4);
  EXPECT_EQ(ports["1"], json({{"name", "port1"},
                              {"link_up", 1},
                              {"rx_packets", 10},
                              {"tx_packets", 0},
                              {"dropped", 0}}));
  const json port = client.ask("/ofswitch/ports,3");
  EXPECT_EQ(port["driver"], "net_pcap");
  EXPECT_EQ(port["tx_packets"], 5);
  EXPECT_EQ(port["tx_bytes"], 5 * length);
  EXPECT_EQ(port["drop_tx_queue_full"], 0);

  EXPECT_EQ(
      client.ask("/ofswitch/tables"),
      json({{"0",
             {{"flows", 1}, {"entered", 17}, {"matched", 10}, {"dropped", 7}}},
            {"4",
             {{"flows", 2},
              {"entered", 10},
              {"matched", 10},
              {"dropped", 5}}}}));
  const json table = client.ask("/ofswitch/tables,4");
  EXPECT_EQ(table["drop_ttl_expired"], 2);
  EXPECT_EQ(table["ipv4"]["builds"], 1);
  EXPECT_EQ(table["ipv6"]["builds"], 0);
  EXPECT_EQ(table["module"].size(), 12);
  EXPECT_EQ(table["module"]["dropActions"], 3 + 2);
  EXPECT_EQ(client.ask("/ofswitch/tables,31")["flows"], 0);

  json flows = client.ask("/ofswitch/flows,4");
  EXPECT_EQ(flows.size(), 3);
  EXPECT_EQ(flows["table"], 4);
  EXPECT_LT(flows["0"]["duration_seconds"], 60);
  flows["0"].erase("duration_seconds");
  EXPECT_EQ(flows["0"], json({{"priority", 50},
                              {"cookie", "0x2a"},
                              {"n_packets", 3},
                              {"n_bytes", 3 * length},
                              {"match", {"tcp", "tp_dst=23"}},
                              {"actions", {"drop"}}}));
  EXPECT_EQ(flows["1"]["n_packets"], 7);
  EXPECT_EQ(flows["1"]["actions"],
            json({"dec_ttl", "output:3", "controller(reason=action)"}));
}

TEST(DpdkTelemetry, LongListsComeInParts) {
  std::string text;
  for (int i = 0; i < 500; i++) {
    text += fmt::format(
        "priority={},ipv6,ipv6_src=2001:db8::{:x}/ffff:ffff:ffff:ffff:"
        "ffff:ffff:ffff:ffff,actions=mod_dl_src:02:00:00:00:00:01,"
        "mod_dl_dst:02:00:00:00:00:02,output:3\n",
        1000 - i, i + 1);
  }
  LiveBench bench(withTelemetry(text));
  // Numbers as long as they can be.
  for (const pb::FlowEntry& entry : bench.entries()) {
    for (const uint32_t id : {entry.packet_counter(), entry.byte_counter()}) {
      QuilModules::bessCounterDb[0]->add(id, 10'000'000'000'000'000'000u);
    }
  }
  const DpdkTelemetry telemetry(bench.live());
  const TelemetryClient client;
  int seen = 0;
  int parts = 0;
  for (json next = 0; !next.is_null(); parts++) {
    const json part = client.ask("/ofswitch/flows,0," + next.dump());
    next = part.contains("next") ? part["next"] : json();
    while (part.contains(std::to_string(seen))) {
      EXPECT_EQ(part[std::to_string(seen)]["priority"], 1000 - seen);
      seen++;
    }
    if (!next.is_null()) {
      EXPECT_EQ(next, seen);
    }
  }
  EXPECT_EQ(seen, 500);
  EXPECT_GT(parts, 5);
  EXPECT_LT(parts, 25);
  EXPECT_EQ(client.ask("/ofswitch/flows,0,500"), json({{"table", 0}}));
}

// Who asks for the next part got the same one again.
TEST(DpdkTelemetry, OnlyCountsActionsThatFitIntoNoAnswer) {
  const auto flow = [](int priority, int actions) {
    std::string text = fmt::format("priority={},tcp,actions=", priority);
    for (int i = 0; i < actions; i++) text += "mod_tp_dst:1,";
    return text + "output:3\n";
  };
  LiveBench bench(withTelemetry(flow(30, 1) + flow(20, 1000) + flow(10, 520)));
  const DpdkTelemetry telemetry(bench.live());
  const TelemetryClient client;
  const json first = client.ask("/ofswitch/flows,0");
  EXPECT_EQ(first["0"]["actions"], json({"mod_tp_dst:1", "output:3"}));
  EXPECT_EQ(first["next"], 1);
  const json rest = client.ask("/ofswitch/flows,0,1");
  EXPECT_EQ(rest["1"]["match"], json({"tcp"}));
  EXPECT_EQ(rest["1"]["actions_left_out"], 1001);
  EXPECT_FALSE(rest["1"].contains("actions"));
  EXPECT_EQ(rest["2"]["actions_left_out"], 521) << "DPDK's lists hold 512";
  EXPECT_FALSE(rest.contains("next"));
}

TEST(DpdkTelemetry, RefusesWrongParameters) {
  LiveBench bench(withTelemetry());
  const DpdkTelemetry telemetry(bench.live());
  const TelemetryClient client;
  for (const char* command :
       {"/ofswitch/flows", "/ofswitch/flows,", "/ofswitch/flows,32",
        "/ofswitch/flows,-1", "/ofswitch/flows,0x1", "/ofswitch/flows,0,",
        "/ofswitch/flows,0,1,2", "/ofswitch/flows,99999999999999999999",
        "/ofswitch/flows,\n"}) {
    EXPECT_EQ(client.ask(command)["error"],
              "the parameters are a table, 0 to 31, and where to start, or 0")
        << command;
  }
  EXPECT_EQ(client.ask("/ofswitch/tables,32")["error"],
            "the parameter is a table, 0 to 31, or none");
  EXPECT_EQ(client.ask("/ofswitch/ports,x")["error"],
            "the parameter is the number of a port, or none");
  EXPECT_EQ(client.ask("/ofswitch/ports,99")["error"], "there is no port 99");
  EXPECT_EQ(client.ask("/ofswitch/ports,65535")["error"],
            "there is no port 65535");
  EXPECT_EQ(client.ask("/ofswitch/ports,65536")["error"],
            "the parameter is the number of a port, or none");
  EXPECT_EQ(client.ask("/ofswitch/none"), json());
}

TEST(DpdkTelemetry, OutlivesTheSwitch) {
  const char* kError = "the switch does not run";
  LiveBench bench(withTelemetry());
  const TelemetryClient client;
  {
    const DpdkTelemetry telemetry(bench.live());
    EXPECT_EQ(client.ask("/ofswitch/stats")["flows"], 3);
    bench.stop();
    EXPECT_EQ(client.ask("/ofswitch/stats")["error"], kError);
  }
  for (const char* command : {"/ofswitch/stats", "/ofswitch/ports",
                              "/ofswitch/tables", "/ofswitch/flows,0"}) {
    EXPECT_EQ(client.ask(command), json({{"error", kError}})) << command;
  }
}

TEST(DpdkTelemetry, ManyAskWhileSwitchesComeAndGo) {
  std::atomic<bool> done = false;
  std::atomic<int> answers = 0;
  std::vector<std::thread> askers;
  {
    LiveBench starts(withTelemetry());  // the environment, and with it DPDK's
  }
  for (int i = 0; i < 3; i++) {
    askers.emplace_back([&] {
      const TelemetryClient client;
      while (!done) {
        for (const char* command : {"/ofswitch/stats", "/ofswitch/tables",
                                    "/ofswitch/flows,4", "/ofswitch/ports,1"}) {
          EXPECT_GT(client.ask(command).size(), 0);
        }
        answers++;
      }
    });
  }
  for (int round = 0; round < 5; round++) {
    LiveBench bench(withTelemetry());
    const DpdkTelemetry telemetry(bench.live());
    const int before = answers;
    for (int i = 0; i < 10 || answers < before + 5; i++) {
      bench.add(fmt::format("table=4,udp,tp_dst={},actions=drop", i));
    }
  }
  done = true;
  for (std::thread& asker : askers) asker.join();
}

TEST(DpdkTelemetry, SaysHowToAsk) {
  LiveBench bench(withTelemetry());
  EXPECT_THAT(
      DpdkTelemetry::command(),
      HasSubstr(fmt::format("dpdk-telemetry.py -f ofswitch{}", getpid())));
}

}  // namespace
}  // namespace ofswitch
