// SPDX-License-Identifier: BSD-3-Clause
#include "switch/live/live_switch.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <string>
#include <vector>

#include "packet_pool.h"
#include "platform/quil_modules/counter_db.h"
#include "ports/drop_cause.h"
#include "tests/support/frame.h"
#include "tests/switch/live_bench.h"
#include "tests/switch/live_policy.h"
#include "utils/acl_build_memory.h"

namespace ofswitch {
namespace {

using openflow_test::Bytes;
using openflow_test::Frame;
using openflow_test::ip6;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;

// What questions to the module leave in the trace ring.
size_t questionsIn(const LiveSwitch::LogReading& log) {
  return static_cast<size_t>(
      std::ranges::count_if(log.entries, [](const pb::LogEntry& entry) {
        return entry.text().find("OpenFlow::getStats(") != std::string::npos;
      }));
}

TEST(LiveSwitch, ReportsAskOnlyTablesThatHaveFlows) {
  LiveBench bench({.flows = kPolicy});
  pb::LogRequest request;
  request.set_facility("OpenFlow");
  request.set_max_level(7);
  request.set_since(bench->readLog(request).next);
  bench->stats();
  EXPECT_EQ(questionsIn(bench->readLog(request)), 2);
  bench->tables({});
  EXPECT_EQ(questionsIn(bench->readLog(request)), 4);
  EXPECT_TRUE(bench.add("table=9,actions=drop").applied());
  request.set_since(bench->readLog(request).next);
  bench->read(0);
  EXPECT_EQ(questionsIn(bench->readLog(request)), 3);
}

TEST(LiveSwitch, PacketsFollowTheFlowsAndTheAccountCloses) {
  LiveBench bench({.flows = kPolicy});
  bench.receive(1, tcpTo(23), 3);
  bench.receive(1, tcpTo(80), 5);
  bench.receive(1, tcpTo(80).ttl(1), 2);
  bench.receive(1, tcpTo(81), 4);
  bench.receive(1, tcpTo(82), 1);
  bench.receive(1, tcpTo(99), 6);
  const Frame v6 = Frame::eth().ipv6(ip6("2001:db8::1"), ip6("2001:db8::2"));
  bench.receive(1, Frame(v6).udp(7, 8));
  bench.receive(2, tcpTo(80), 7);  // no flow for port 2

  const pb::StatsReply stats = bench.settled();
  EXPECT_EQ(stats.packets_received(), 29);
  EXPECT_EQ(stats.packets_forwarded(), 11);
  EXPECT_EQ(stats.copies_output(), 15);
  EXPECT_EQ(stats.packets_sent(), 11);
  EXPECT_EQ(LiveBench::drops(stats, "drop_action"), 3);
  EXPECT_EQ(LiveBench::drops(stats, "ttl_expired"), 2);
  EXPECT_EQ(LiveBench::drops(stats, "table_miss"), 13);
  EXPECT_EQ(LiveBench::drops(stats, "no_such_port"), 4);
  EXPECT_EQ(LiveBench::drops(stats, "no_buffer_for_output"), 0);
  EXPECT_EQ(stats.flows(), 6);
  std::vector<std::string> where;
  for (const pb::DropCause& drop : stats.drops()) {
    if (drop.packets() == 0) continue;
    where.push_back(fmt::format("{} {}", drop.name(), drop.table()));
  }
  EXPECT_THAT(where,
              ElementsAre("table_miss 0", "table_miss 4", "drop_action 4",
                          "ttl_expired 4", "no_such_port 0"));
  const size_t kinds = std::size(bess::kDropCauses);
  ASSERT_EQ(stats.drops_size(), 4 + 4 + 3 * kinds) << "zeros of ports alone";
  for (size_t i = 0; i < 3 * kinds; i++) {
    const auto& drop = stats.drops(static_cast<int>(8 + i));
    EXPECT_EQ(drop.port(), 1 + i / kinds);
    EXPECT_EQ(drop.name(), bess::kDropCauses[i % kinds].name);
  }

  const size_t length = tcpTo(80).bytes().size();
  const pb::PortsReply ports = bench->ports();
  ASSERT_EQ(ports.ports_size(), 4);
  EXPECT_EQ(ports.ports(3).port(), 3u);
  EXPECT_EQ(ports.ports(3).name(), "port3");
  EXPECT_THAT(ports.ports(3).mac(), SizeIs(17));
  EXPECT_EQ(ports.ports(1).rx_packets(), 22);
  EXPECT_EQ(ports.ports(1).tx_packets(), 0);
  EXPECT_EQ(ports.ports(3).rx_packets(), 0);
  EXPECT_EQ(ports.ports(3).tx_packets(), 10);
  EXPECT_EQ(ports.ports(3).drops_size(), static_cast<int>(kinds));
  EXPECT_EQ(ports.ports(3).drops(0).port(), 3u);
  EXPECT_EQ(ports.ports(1).rx_bytes(),
            21 * length + Frame(v6).udp(7, 8).bytes().size());
  EXPECT_EQ(ports.ports(2).rx_bytes(), 7 * length);
  EXPECT_EQ(ports.ports(3).rx_bytes(), 0);
  EXPECT_EQ(ports.ports(1).tx_bytes() + ports.ports(2).tx_bytes(), 0);
  EXPECT_GT(ports.ports(0).tx_bytes(), 0);
  EXPECT_GT(ports.ports(3).tx_bytes(), 0);
  EXPECT_EQ(stats.bytes_received(), ports.ports(1).rx_bytes() + 7 * length);
  EXPECT_EQ(stats.bytes_sent(),
            ports.ports(0).tx_bytes() + ports.ports(3).tx_bytes());

  const pb::TablesReply tables = bench->tables({});
  ASSERT_EQ(tables.tables_size(), 2);
  EXPECT_EQ(tables.tables(0).entered(), 29);
  EXPECT_EQ(tables.tables(0).matched(), 22);
  EXPECT_EQ(tables.tables(1).table(), 4);
  for (const pb::DropCause& drop : tables.tables(1).drops()) {
    EXPECT_EQ(drop.table(), 4u) << drop.name();
  }
  EXPECT_EQ(tables.tables(1).flows(), 5);
  EXPECT_EQ(tables.tables(1).entered(), 22);
  EXPECT_EQ(tables.tables(1).matched(), 16);
  EXPECT_EQ(tables.tables(1).ipv4().flows(), 6);  // guard and miss flow
  EXPECT_EQ(tables.tables(1).ipv6().flows(), 1);
  EXPECT_EQ(tables.tables(1).ipv4().builds(), 1);
  EXPECT_GT(tables.tables(1).ipv4().last_build_ns(), 0);

  const pb::FlowEntry http = bench.entries("table=4,tcp,tp_dst=80")[0];
  EXPECT_EQ(http.n_packets(), 7);
  EXPECT_EQ(http.ttl_expired_packets(), 2);
  EXPECT_EQ(http.n_bytes(), 7 * tcpTo(80).bytes().size());

  const std::vector<Bytes> sent = bench.sentOnPort3();
  ASSERT_THAT(sent, SizeIs(10));
  EXPECT_EQ(sent[0], tcpTo(80).ttl(63).bytes());
  EXPECT_EQ(sent[5], tcpTo(81).bytes());
  EXPECT_EQ(openflow_test::hex({sent[9].begin(), sent[9].begin() + 6}),
            "020000000009");
}

TEST(LiveSwitch, DumpIsReadBackUnchanged) {
  LiveBench bench({.flows = "cookie=0x2a,idle_timeout=60,in_port=1,tcp,"
                            "tp_dst=80,actions=dec_ttl,output:3\n"
                            "table=2,priority=0,actions=drop\n"});
  bench.receive(1, tcpTo(80), 2);
  bench.settled();
  bench.pass(std::chrono::milliseconds(5000));
  const std::vector<std::string> lines = bench.dump();
  ASSERT_THAT(lines, SizeIs(2));
  EXPECT_THAT(lines[0],
              MatchesRegex("cookie=0x2a, duration=5.[0-9]{3}s, table=0, "
                           "n_packets=2, n_bytes=[0-9]+, idle_timeout=60, "
                           "idle_age=[05], priority=32768,in_port=1,tcp,"
                           "tp_dst=80 actions=dec_ttl,output:3"));
  EXPECT_THAT(lines[1], HasSubstr(", table=2, n_packets=0, n_bytes=0, "));
  EXPECT_THAT(lines[1], HasSubstr(", priority=0 actions=drop"));
  const pb::FlowChangeReply reply = bench.change(
      pb::FLOW_OPERATION_REPLACE, lines[0] + "\n" + lines[1] + "\n");
  EXPECT_TRUE(reply.applied());
  EXPECT_EQ(reply.unchanged(), 2);
  EXPECT_EQ(reply.builds_size(), 0);
}

TEST(LiveSwitch, DealsQueuesOutToWorkersInTurn) {
  SwitchConfig config = LiveBench({})->config();
  config.ports = {{1, "one", "net_null1", 1, 0}, {2, "two", "net_null2", 1, 0}};
  config.workers = {-1, -1};
  config.flowFiles.clear();
  LiveSwitch live(config);
  live.start();
  const pb::StatsReply stats = live.stats();
  ASSERT_EQ(stats.workers_size(), 2);
  EXPECT_EQ(stats.workers(0).worker(), 0u);
  EXPECT_EQ(stats.workers(1).worker(), 1u);
  EXPECT_TRUE(stats.workers(1).running());
  EXPECT_THAT(stats.workers(0).tasks(), ElementsAre("one queue 0"));
  EXPECT_THAT(stats.workers(1).tasks(), ElementsAre("two queue 0"));
  EXPECT_EQ(live.ports().ports(1).tx_queues(), 2) << "one a worker";
}

TEST(LiveSwitch, AsksDevicesForTheirMtu) {
  SwitchConfig config = LiveBench({})->config();
  config.ports = {{1, "one", "net_null1", 1, 9000}};
  config.flowFiles.clear();
  LiveSwitch live(config);
  live.start();
  EXPECT_EQ(live.ports().ports(1).mtu(), 9000);
}

TEST(LiveSwitch, NotesThatADeviceHasOtherQueues) {
  LiveBench bench({.workers = 2, .queues = 3});
  EXPECT_THAT(
      bench->startNotes(),
      testing::IsSupersetOf(
          {"port 2: 2 receive queues instead of 1, as the device has it",
           "port 3: 1 receive queues instead of 3, as the device has "
           "it"}));
}

TEST(LiveSwitch, SetsWhatBuildsMayTake) {
  const size_t before = Dpdk::aclBuildLimit();
  {
    LiveBench bench({.buildMb = 77});
    EXPECT_EQ(Dpdk::aclBuildLimit(), size_t{77} << 20);
  }
  Dpdk::setAclBuildLimit(before);
}

TEST(LiveSwitch, TimeoutsRemoveFlowsByTheirCounters) {
  LiveBench bench({.flows = "idle_timeout=30,in_port=1,actions=output:3\n"
                            "hard_timeout=100,in_port=2,actions=output:3\n"
                            "hard_timeout=100,in_port=3,actions=output:2\n"});
  for (int i = 0; i < 4; i++) {
    bench.receive(1, tcpTo(80));
    bench.settled();
    bench->expireFlows();
    bench.pass(std::chrono::seconds(24));
    bench->expireFlows();
    ASSERT_THAT(bench.dump(), SizeIs(3)) << i;
  }
  bench.pass(std::chrono::seconds(4));  // 100 seconds after the start
  bench->expireFlows();
  EXPECT_THAT(bench.dump(), ElementsAre(HasSubstr("in_port=1")));
  bench.pass(std::chrono::seconds(3));
  bench->expireFlows();
  EXPECT_THAT(bench.dump(), IsEmpty());
  const pb::StatsReply stats = bench.settled();
  EXPECT_EQ(stats.expired_idle(), 1);
  EXPECT_EQ(stats.expired_hard(), 2);
  EXPECT_EQ(stats.packets_sent(), 4);
  bench.receive(1, tcpTo(80));
  EXPECT_EQ(LiveBench::drops(bench.settled(), "table_miss"), 1);
}

TEST(LiveSwitch, ControllerPacketsAreLoggedAndCaptured) {
  LiveBench bench({.flows = "in_port=1,actions=controller\n",
                   .controllerCapture = "controller.pcap"});
  const Bytes frame = tcpTo(443).bytes();
  pb::LogRequest request;
  request.set_facility("Controller");
  request.set_max_level(5);
  request.set_since(bench->readLog(request).next);
  const Bytes other = tcpTo(80).payload(100).bytes();
  bench.receive(1, {frame, other});
  bench.settled();
  const LiveSwitch::LogReading log = bench->readLog(request);
  ASSERT_THAT(log.entries, SizeIs(2));
  EXPECT_EQ(log.entries[0].text(),
            fmt::format("packet for the controller: reason 1, {} bytes: {}",
                        frame.size(), openflow_test::hex(frame)));
  const pb::PortsReply ports = bench->ports();
  EXPECT_EQ(ports.ports(0).name(), "controller");
  EXPECT_EQ(ports.ports(0).tx_packets(), 2);
  bench.stop();
  const auto rows = openflow_test::readCapture(bench.path("controller.pcap"));
  ASSERT_THAT(rows, SizeIs(2));
  EXPECT_EQ(rows[0].bytes, std::string(frame.begin(), frame.end()));
  EXPECT_EQ(rows[1].bytes, std::string(other.begin(), other.end()));
}

TEST(LiveSwitch, TellsWhatItConsistsOf) {
  LiveBench bench({});
  const pb::PortsReply ports = bench->ports();
  EXPECT_EQ(ports.ports(1).speed_mbps(), 10'000);
  EXPECT_EQ(ports.ports(1).mtu(), 1500);
  EXPECT_EQ(bench->stats().workers(0).core(), -1);
  bess::PacketPool* pool = bess::PacketPool::Default();
  bess::Packet* packet = pool->Alloc(60);
  const pb::StatsReply stats = bench->stats();
  EXPECT_EQ(stats.buffers_total(), pool->capacity());
  EXPECT_EQ(stats.buffers_free(), stats.buffers_total() - 1);
  bess::Packet::Free(packet);
}

// Counted by nobody's packet.
TEST(LiveSwitch, SaysThatItsSumsDoNotClose) {
  LiveBench bench({.flows = "in_port=1,actions=output:3\n"});
  QuilModules::bessCounterDb[0]->add(1, 5);
  pb::StatsRequest pause;
  pause.set_pause(true);
  const pb::StatsReply stats = bench->stats(pause);
  EXPECT_FALSE(stats.closes());
  EXPECT_THAT(stats.discrepancies(),
              testing::Contains("0 packets received, but 5 accounted for"));
}

TEST(LiveSwitch, NotesOutputsThatLeadNowhere) {
  LiveBench bench({});
  const pb::FlowChangeReply reply = bench.add("actions=output:9\n");
  EXPECT_TRUE(reply.applied());
  ASSERT_EQ(reply.notes_size(), 1);
  EXPECT_THAT(reply.notes(0).reason(), HasSubstr("port 9 is not connected"));
}

TEST(LiveSwitch, ListsHowLongFlowsHaveRested) {
  LiveBench bench({.flows = "in_port=1,actions=output:3\n"});
  bench.pass(std::chrono::seconds(100));
  EXPECT_GE(bench.entries()[0].idle_age_ns(), 100'000'000'000);
  bench.receive(1, tcpTo(80));
  bench.settled();
  EXPECT_LT(bench.entries()[0].idle_age_ns(), 90'000'000'000);
}

TEST(LiveSwitch, StopsOnce) {
  LiveBench bench({.flows = "in_port=1,actions=output:3\n"});
  bench.receive(1, tcpTo(80), 5);
  bench.settled();
  EXPECT_EQ(bench->stop().packets_sent(), 5);
  EXPECT_EQ(bench->stop().packets_sent(), 5) << "the same once more";
}

// Copies that failed before its time are not missed.
TEST(LiveSwitch, SecondStartHasLostNothing) {
  {
    LiveBench bench({});
    bess::PacketPool* pool = bess::PacketPool::Default();
    std::vector<bess::Packet*> all;
    while (bess::Packet* packet = pool->Alloc(60)) all.push_back(packet);
    EXPECT_EQ(bess::Packet::copy(all.front()), nullptr);
    for (bess::Packet* packet : all) bess::Packet::Free(packet);
  }
  LiveBench bench({});
  EXPECT_EQ(LiveBench::drops(bench.settled(), "no_buffer_for_output"), 0);
}

TEST(LiveSwitch, SecondStartIsClean) {
  for (int i = 0; i < 2; i++) {
    LiveBench bench({.flows = "in_port=1,actions=output:3\n"});
    bench.receive(1, tcpTo(80), 5);
    const pb::StatsReply stats = bench.settled();
    EXPECT_EQ(stats.packets_received(), 5) << i;
    EXPECT_EQ(stats.packets_sent(), 5) << i;
    EXPECT_EQ(bench.entries()[0].n_packets(), 5) << i;
    EXPECT_TRUE(bench->running());
    bench.stop();
    EXPECT_FALSE(bench->running());
    EXPECT_EQ(bench.add("in_port=2,actions=drop").failure(),
              "the switch is not running");
  }
}

TEST(LiveSwitch, StartErrorsNameTheirCause) {
  SwitchConfig config;
  config.memoryMb = 256;
  config.module.path = MODULE;
  config.flowFiles = {{"/nowhere/flows.txt"}};
  try {
    LiveSwitch(config).start();
    FAIL() << "started";
  } catch (const StartError& error) {
    EXPECT_STREQ(error.what(),
                 "/nowhere/flows.txt: cannot open: No such file or directory");
  }
  config.flowFiles.clear();
  config.ports = {{4, "port4", "net_nonsense0", 1, 0}};
  try {
    LiveSwitch(config).start();
    FAIL() << "started";
  } catch (const StartError& error) {
    EXPECT_THAT(error.what(),
                HasSubstr("port 'port4', device 'net_nonsense0': no driver"));
  }
  // Nothing of the failed start is left behind.
  config.ports.clear();
  LiveSwitch live(config);
  live.start();
  EXPECT_EQ(live.ports().ports_size(), 1);
}

}  // namespace
}  // namespace ofswitch
