// SPDX-License-Identifier: BSD-3-Clause
#include "switch/live/live_switch.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>

#include "switch/flow/flow_reader.h"
#include "tests/support/frame.h"
#include "tests/switch/explosive_flows.h"
#include "tests/switch/live_bench.h"
#include "tests/switch/refuse_build.h"
#include "utils/acl_build_memory.h"

namespace ofswitch {
namespace {

using openflow_test::Bytes;
using openflow_test::Frame;
using openflow_test::ip4;
using openflow_test::ip6;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;

Frame tcpTo(uint16_t port) {
  return Frame::eth().ipv4(ip4("10.0.0.1"), ip4("10.0.0.2")).tcp(1000, port);
}

constexpr char kPolicy[] =
    "table=0,priority=10,in_port=1,actions=goto_table:4\n"
    "table=4,priority=50,tcp,tp_dst=23,actions=drop\n"
    "table=4,priority=40,tcp,tp_dst=80,actions=dec_ttl,output:3\n"
    "table=4,priority=40,tcp,tp_dst=81,actions=output:3,output:9\n"
    "table=4,priority=40,tcp,tp_dst=82,actions=controller\n"
    "table=4,priority=30,ipv6,actions=mod_dl_dst:02:00:00:00:00:09,output:3\n";

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

  const pb::TablesReply tables = bench->tables({});
  ASSERT_EQ(tables.tables_size(), 2);
  EXPECT_EQ(tables.tables(0).entered(), 29);
  EXPECT_EQ(tables.tables(0).matched(), 22);
  EXPECT_EQ(tables.tables(1).table(), 4);
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

TEST(LiveSwitch, PacketsAfterTheAnswerMeetTheNewFlows) {
  LiveBench bench({});
  for (int round = 0; round < 40; round++) {
    const pb::FlowChangeReply reply =
        bench.add(round % 2 == 0 ? "in_port=1,actions=output:3"
                                 : "in_port=1,actions=drop");
    ASSERT_TRUE(reply.applied());
    ASSERT_EQ(reply.builds_size(), 1);
    bench.receive(1, tcpTo(80), 3);
  }
  const pb::StatsReply stats = bench.settled();
  EXPECT_EQ(stats.packets_sent(), 60);
  EXPECT_EQ(LiveBench::drops(stats, "drop_action"), 60);
  EXPECT_EQ(bench.entries()[0].n_packets(), 120);
  EXPECT_EQ(stats.flow_changes(), 40);
}

TEST(LiveSwitch, FlowsChangeUnderTrafficOfTwoWorkersAndNothingIsLost) {
  LiveBench bench({.workers = 2, .flows = kPolicy});
  std::atomic<bool> done = false;
  const auto traffic = [&](uint16_t port) {
    std::mt19937 random(port);
    while (!done) {
      std::vector<Bytes> frames;
      for (int i = 0; i < 64; i++) {
        frames.push_back(tcpTo(static_cast<uint16_t>(79 + random() % 5))
                             .ttl(static_cast<uint8_t>(random() % 4)));
      }
      bench.receive(port, frames);
    }
  };
  std::thread one([&] { traffic(1); });
  std::thread two([&] { traffic(2); });
  for (int round = 0; round < 60; round++) {
    const std::string text = fmt::format(
        "table=0,in_port=2,actions={}\n"
        "table={},tcp,tp_dst=80,actions=dec_ttl,output:3\n",
        round % 3 == 0 ? "goto_table:5" : "dec_ttl,goto_table:6",
        5 + round % 2);
    EXPECT_TRUE(bench.add(text).applied());
    if (round % 7 == 0) {
      EXPECT_TRUE(bench.change(pb::FLOW_OPERATION_DELETE, "table=0,in_port=2")
                      .applied());
    }
    if (round % 5 == 0) {
      const pb::StatsReply stats = bench->stats();
      EXPECT_TRUE(stats.closes());
    }
  }
  pb::StatsRequest pause;
  pause.set_pause(true);
  const pb::StatsReply underTraffic = bench->stats(pause);
  EXPECT_TRUE(underTraffic.exact());
  EXPECT_THAT(underTraffic.discrepancies(), IsEmpty());
  done = true;
  one.join();
  two.join();
  const pb::StatsReply stats = bench.settled();
  EXPECT_GT(stats.packets_received(), 1000);
  EXPECT_GT(stats.packets_sent(), 0);
  EXPECT_EQ(LiveBench::drops(stats, "lookup_failed"), 0);
  uint64_t ended = stats.packets_forwarded();
  for (const char* cause : {"table_miss", "drop_action", "ttl_expired",
                            "no_output", "no_buffer_for_table"}) {
    ended += LiveBench::drops(stats, cause);
  }
  EXPECT_EQ(ended, stats.packets_received());
}

TEST(LiveSwitch, TenThousandFlowsAreOneBuildATableAndFamily) {
  LiveBench bench({.counters = 1u << 16});
  std::string text;
  for (int i = 0; i < 10000; i++) {
    text += fmt::format("table={},tcp,nw_dst=10.0.{}.{},actions=output:3\n",
                        i % 2, i / 256, i % 256);
  }
  const pb::FlowChangeReply reply = bench.add(text);
  EXPECT_TRUE(reply.applied()) << reply.failure();
  EXPECT_EQ(reply.added(), 10000);
  ASSERT_EQ(reply.builds_size(), 2);
  EXPECT_EQ(reply.builds(0).adds(), 5000);
  EXPECT_EQ(reply.builds(1).adds(), 5000);
  bench.receive(1,
                Frame::eth().ipv4(ip4("10.9.9.9"), ip4("10.0.3.2")).tcp(5, 6));
  EXPECT_EQ(bench.settled().packets_sent(), 1);
  EXPECT_EQ(bench.entries("table=0,ip,nw_dst=10.0.3.2")[0].n_packets(), 1);

  // One more, one less: the difference is all that is sent.
  const pb::FlowChangeReply difference = bench.change(
      pb::FLOW_OPERATION_REPLACE,
      text.substr(text.find('\n') + 1) + "table=0,arp,actions=drop\n");
  EXPECT_EQ(difference.unchanged(), 9999);
  ASSERT_EQ(difference.builds_size(), 1);
  EXPECT_EQ(difference.builds(0).adds(), 1);
  EXPECT_EQ(difference.builds(0).deletes(), 1);
  EXPECT_EQ(difference.builds(0).flows(), 5001);
}

TEST(LiveSwitch, FailedBuildChangesNothingForPackets) {
  LiveBench bench({.flows = kPolicy});
  const std::vector<pb::FlowEntry> before = bench.entries();
  // Table 4 is built first and taken back when table 0 fails.
  RefuseBuild refuse(1);
  const pb::FlowChangeReply reply = bench.add(
      "table=0,in_port=1,priority=20,actions=drop\n"
      "table=4,tcp,tp_dst=80,priority=60,actions=drop\n");
  EXPECT_FALSE(reply.applied());
  EXPECT_EQ(reply.failure(),
            "table 0 IPv4: its classifier could not be built, usually for lack "
            "of memory (memory.mb); all flows are as they were");
  ASSERT_EQ(reply.builds_size(), 4);
  EXPECT_TRUE(reply.builds(2).is_inverse());
  const std::vector<pb::FlowEntry> after = bench.entries();
  ASSERT_EQ(after.size(), before.size());
  for (size_t i = 0; i < after.size(); i++) {
    EXPECT_EQ(after[i].flow(), before[i].flow());
  }
  bench.receive(1, tcpTo(80), 4);
  const pb::StatsReply stats = bench.settled();
  EXPECT_EQ(stats.packets_sent(), 4);
  const pb::TablesReply tables = bench->tables({});
  EXPECT_EQ(tables.tables(0).ipv4().failed_builds(), 1);
  EXPECT_EQ(tables.tables(0).counters(3).name(), "aclBuildFailures");
  EXPECT_EQ(tables.tables(0).counters(3).value(), 1);
}

TEST(LiveSwitch, ABuildBeyondItsMemoryIsRefused) {
  LiveBench bench({.flows = kPolicy, .counters = 16384});
  const size_t limit = Dpdk::aclBuildLimit();
  Dpdk::setAclBuildLimit(size_t{64} << 20);
  const std::vector<pb::FlowEntry> before = bench.entries();
  const RefuseBuild nobody(1000);  // but the leak checker must not look
  const pb::FlowChangeReply reply = bench.add(openflow_test::explosiveFlows());
  Dpdk::setAclBuildLimit(limit);
  EXPECT_EQ(reply.refusals_size(), 0);
  EXPECT_FALSE(reply.applied());
  EXPECT_EQ(reply.failure(),
            "table 0 IPv4: its classifier needs more than 64 MB to build "
            "(memory.build_mb): fields that some flows leave open and others "
            "fix multiply, see docs/flow-sets.md; all flows are as they were");
  EXPECT_THAT(bench.entries(), SizeIs(before.size()));
  bench.receive(1, tcpTo(80), 4);
  EXPECT_EQ(bench.settled().packets_sent(), 4);
  EXPECT_TRUE(bench.add("table=0,udp,actions=drop").applied());
}

TEST(LiveSwitch, RefusedRequestsNameTheirLineAndChangeNothing) {
  LiveBench bench({.flows = kPolicy});
  const pb::FlowChangeReply reply = bench.add(
      "in_port=1,actions=output:3\n"
      "in_port=1,nw_dts=10.0.0.1,actions=drop\n");
  EXPECT_FALSE(reply.applied());
  ASSERT_EQ(reply.refusals_size(), 1);
  EXPECT_EQ(reply.refusals(0).name(), "request");
  EXPECT_EQ(reply.refusals(0).line(), 2);
  EXPECT_EQ(reply.refusals(0).reason(),
            "unknown field \"nw_dts\", did you mean \"nw_dst\"?");
  EXPECT_EQ(reply.builds_size(), 0);
  EXPECT_THAT(bench.dump(), SizeIs(6));
  EXPECT_EQ(
      bench.change(pb::FLOW_OPERATION_UNSPECIFIED, "").refusals(0).reason(),
      "the operation must be one of add, delete and replace");
  pb::FlowFilter filter;
  filter.set_text("priority=3");
  EXPECT_THROW(bench->dumpFlows(filter, [](const auto&) { return true; }),
               BadRequest);
}

TEST(LiveSwitch, FlowsInMessagesMeanWhatTheirTextMeans) {
  LiveBench bench({});
  pb::FlowChange change;
  change.set_operation(pb::FLOW_OPERATION_ADD);
  pb::FlowMessage* flow = change.add_flows();
  flow->set_table(2);
  flow->set_priority(7);
  flow->set_cookie(0xabc);
  flow->set_hard_timeout(9);
  flow->add_match()->set_name("tcp");
  auto* field = flow->add_match();
  field->set_name("nw_dst");
  field->set_value("10.0.0.0/8");
  flow->add_actions("dec_ttl");
  flow->add_actions("output:3");
  EXPECT_TRUE(bench->changeFlows(change).applied());
  EXPECT_EQ(bench.entries()[0].flow(),
            "table=2,priority=7,cookie=0xabc,hard_timeout=9,tcp,"
            "nw_dst=10.0.0.0/8,actions=dec_ttl,output:3");

  field->set_value("10.0.0.0/8,in_port=1");
  EXPECT_EQ(bench->changeFlows(change).refusals(0).reason(),
            "value \"10.0.0.0/8,in_port=1\" is not one word of flow text");
  pb::FlowChange removal;
  removal.set_operation(pb::FLOW_OPERATION_DELETE);
  removal.add_flows()->set_cookie(0xabc);
  EXPECT_EQ(bench->changeFlows(removal).removed(), 1);
}

TEST(LiveSwitch, TimeoutsRemoveFlowsByTheirCounters) {
  LiveBench bench({.flows = "idle_timeout=30,in_port=1,actions=output:3\n"
                            "hard_timeout=100,in_port=2,actions=output:3\n"});
  for (int i = 0; i < 4; i++) {
    bench.receive(1, tcpTo(80));
    bench.settled();
    bench->expireFlows();
    bench.pass(std::chrono::seconds(24));
    bench->expireFlows();
    ASSERT_THAT(bench.dump(), SizeIs(2)) << i;
  }
  bench.pass(std::chrono::seconds(4));  // 100 seconds after the start
  bench->expireFlows();
  EXPECT_THAT(bench.dump(), ElementsAre(HasSubstr("in_port=1")));
  bench.pass(std::chrono::seconds(3));
  bench->expireFlows();
  EXPECT_THAT(bench.dump(), IsEmpty());
  const pb::StatsReply stats = bench.settled();
  EXPECT_EQ(stats.expired_idle(), 1);
  EXPECT_EQ(stats.expired_hard(), 1);
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
  bench.receive(1, frame, 2);
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
  EXPECT_EQ(rows[1].bytes, std::string(frame.begin(), frame.end()));
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
  config.module = MODULE;
  config.flowFiles = {"/nowhere/flows.txt"};
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
