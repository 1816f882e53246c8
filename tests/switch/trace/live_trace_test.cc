// SPDX-License-Identifier: BSD-3-Clause
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "switch/trace/trace_text.h"
#include "tests/support/checksum.h"
#include "tests/support/frame.h"
#include "tests/switch/live_bench.h"
#include "tests/switch/trace/trace_bench.h"

namespace ofswitch {
namespace {

using openflow_test::Bytes;
using openflow_test::Frame;
using openflow_test::hex;
using openflow_test::ip4;
using openflow_test::ip6;
using testing::HasSubstr;

// The explanation, with the name of the flow file instead of its path.
std::string explained(const LiveBench& bench, const pb::TraceReply& reply) {
  EXPECT_EQ(reply.refusal(), "");
  std::string text = traceText(reply);
  const std::string path = bench.path("flows.txt").string();
  for (size_t at; (at = text.find(path)) != std::string::npos;) {
    text.replace(at, path.size(), "flows.txt");
  }
  return text;
}

// Key and frame of tcpTo(80).
#define TCP_KEY(rest)                                            \
  "in_port=1,dl_src=02:00:00:00:00:05,dl_dst=02:00:00:00:00:0d," \
  "dl_type=0x0800," rest
constexpr char kTcpL3[] =
    "nw_src=10.0.0.1,nw_dst=10.0.0.2,nw_proto=6,nw_tos=0,nw_ecn=0,";

TEST(LiveTrace, Output) {
  LiveBench bench({.flows = "cookie=0x2a,priority=7,in_port=1,tcp,tp_dst=80,"
                            "actions=output:3\n"});
  const Bytes frame = tcpTo(80).bytes();
  EXPECT_EQ(
      explained(bench, traceFrame(&bench, frame)),
      fmt::format(
          "packet of 54 bytes into port 1\n"
          "table 0\n"
          "  key     " TCP_KEY(
              "{}nw_ttl=64,tp_src=1000,"
              "tp_dst=80,tcp_flags=+psh+ack\n") "  match   "
                                                "table=0,priority=7,cookie="
                                                "0x2a,in_port=1,"
                                                "tcp,tp_dst=80,actions=output:"
                                                "3\n"
                                                "          flow 1, cookie "
                                                "0x2a, IPv4 classifier, "
                                                "flows.txt:1\n"
                                                "  output  port 3\n"
                                                "leaves by port 3: 54 bytes\n"
                                                "  {}\n",
          kTcpL3, hex(frame)));
}

TEST(LiveTrace, RewritesAndGotoChain) {
  LiveBench bench({.flows =
                       "table=0,ip,actions=mod_vlan_vid:100,mod_vlan_pcp:3,"
                       "mod_dl_dst:02:00:00:00:00:09,goto_table:4\n"
                       "table=4,dl_vlan=100,ip,actions=dec_ttl,"
                       "mod_nw_src:192.0.2.9,goto_table:31\n"
                       "table=31,tcp,actions=strip_vlan,mod_tp_dst:8080,"
                       "output:3,output:2\n"});
  const pb::TraceReply reply = traceFrame(&bench, tcpTo(80).bytes());
  const Bytes sent = Frame::eth(openflow_test::mac("02:00:00:00:00:09"))
                         .ipv4(ip4("192.0.2.9"), ip4("10.0.0.2"))
                         .ttl(63)
                         .tcp(1000, 8080)
                         .bytes();
  EXPECT_EQ(
      explained(bench, reply),
      fmt::format(
          "packet of 54 bytes into port 1\n"
          "table 0\n"
          "  key     " TCP_KEY(
              "{0}nw_ttl=64,tp_src=1000,tp_dst=80,"
              "tcp_flags=+psh+ack\n") "  match   "
                                      "table=0,priority=32768,ip,actions=mod_"
                                      "vlan_vid:100,"
                                      "mod_vlan_pcp:3,mod_dl_dst:02:00:00:00:"
                                      "00:09,goto_table:4\n"
                                      "          flow 1, cookie 0x0, IPv4 "
                                      "classifier, flows.txt:1\n"
                                      "  set     dl_dst 02:00:00:00:00:0d -> "
                                      "02:00:00:00:00:09\n"
                                      "  set     dl_vlan none -> 100\n"
                                      "  set     dl_vlan_pcp none -> 3\n"
                                      "  goto    table 4\n"
                                      "table 4\n"
                                      "  key     "
                                      "in_port=1,dl_src=02:00:00:00:00:05,"
                                      "dl_dst=02:00:00:00:00:09,dl_type=0x0800,"
                                      "dl_vlan=100,dl_vlan_pcp=3,"
                                      "{0}nw_ttl=64,tp_src=1000,tp_dst=80,tcp_"
                                      "flags=+psh+ack\n"
                                      "  match   "
                                      "table=4,priority=32768,ip,dl_vlan=100,"
                                      "actions=dec_ttl,mod_nw_src:192.0.2.9,"
                                      "goto_table:31\n"
                                      "          flow 2, cookie 0x0, IPv4 "
                                      "classifier, flows.txt:2\n"
                                      "  set     nw_src 10.0.0.1 -> 192.0.2.9\n"
                                      "  set     nw_ttl 64 -> 63\n"
                                      "  goto    table 31\n"
                                      "table 31\n"
                                      "  key     "
                                      "in_port=1,dl_src=02:00:00:00:00:05,"
                                      "dl_dst=02:00:00:00:00:09,dl_type=0x0800,"
                                      "dl_vlan=100,dl_vlan_pcp=3,"
                                      "nw_src=192.0.2.9,nw_dst=10.0.0.2,nw_"
                                      "proto=6,nw_tos=0,nw_ecn=0,"
                                      "nw_ttl=63,tp_src=1000,tp_dst=80,tcp_"
                                      "flags=+psh+ack\n"
                                      "  match   "
                                      "table=31,priority=32768,tcp,actions="
                                      "strip_vlan,"
                                      "mod_tp_dst:8080,output:3,output:2\n"
                                      "          flow 4, cookie 0x0, IPv4 "
                                      "classifier, flows.txt:3\n"
                                      "  set     dl_vlan 100 -> none\n"
                                      "  set     dl_vlan_pcp 3 -> none\n"
                                      "  set     tp_dst 80 -> 8080\n"
                                      "  output  port 3\n"
                                      "  output  port 2\n"
                                      "leaves by port 3, port 2: 54 bytes\n"
                                      "  {1}\n",
          kTcpL3, hex(sent)));
}

TEST(LiveTrace, MissTellsTheNearestFlows) {
  LiveBench bench({.flows =
                       "priority=9,in_port=2,tcp,tp_dst=81,actions=output:3\n"
                       "priority=5,tcp,nw_dst=10.1.0.0/16,actions=output:3\n"
                       "priority=6,tcp,tp_dst=81,actions=drop\n"
                       "priority=9,udp6,tp_dst=80,actions=output:3\n"});
  EXPECT_EQ(explained(bench, traceFrame(&bench, tcpTo(80).bytes())),
            fmt::format(
                "packet of 54 bytes into port 1\n"
                "table 0\n"
                "  key     " TCP_KEY(
                    "{}nw_ttl=64,tp_src=1000,tp_dst=80,"
                    "tcp_flags=+psh+ack\n") "  match   none\n"
                                            "  near    "
                                            "table=0,priority=6,tcp,tp_dst=81,"
                                            "actions=drop\n"
                                            "          tp_dst is 80, not 81\n"
                                            "  near    "
                                            "table=0,priority=5,tcp,nw_dst=10."
                                            "1.0.0/16,"
                                            "actions=output:3\n"
                                            "          nw_dst is 10.0.0.2, not "
                                            "10.1.0.0/16\n"
                                            "  near    "
                                            "table=0,priority=9,in_port=2,tcp,"
                                            "tp_dst=81,"
                                            "actions=output:3\n"
                                            "          in_port is 1, not 2\n"
                                            "          tp_dst is 80, not 81\n"
                                            "  drop    table_miss: No flow of "
                                            "the table matched the packet.\n"
                                            "nothing leaves the switch\n",
                kTcpL3));
}

TEST(LiveTrace, DropsTellTheirCause) {
  LiveBench bench({.flows = "tcp,tp_dst=23,actions=drop\n"
                            "tcp,tp_dst=80,actions=dec_ttl,output:3\n"});
  const pb::TraceReply said = traceFrame(&bench, tcpTo(23).bytes());
  EXPECT_EQ(said.steps(0).drop().name(), "drop_action");
  EXPECT_EQ(said.steps(0).flow().match(), "tcp,tp_dst=23");
  EXPECT_THAT(explained(bench, said),
              HasSubstr("  drop    drop_action: The flow that matched says "
                        "drop.\nnothing leaves the switch\n"));
  const pb::TraceReply expired = traceFrame(&bench, tcpTo(80).ttl(1).bytes());
  EXPECT_EQ(expired.steps(0).drop().name(), "ttl_expired");
  EXPECT_EQ(expired.steps(0).flow().match(), "tcp,tp_dst=80");
  EXPECT_EQ(expired.outputs_size(), 0);
  const pb::TraceReply empty = traceFrame(&bench, tcpTo(80).bytes(), 1, 9);
  EXPECT_EQ(empty.steps(0).table(), 9);
  EXPECT_EQ(empty.steps(0).drop().name(), "lookup_failed");
  EXPECT_EQ(empty.steps(0).drop().table(), 9);
  EXPECT_THAT(explained(bench, empty), HasSubstr("the table has no flows"));
}

TEST(LiveTrace, Ipv6FromText) {
  LiveBench bench({.flows = "tcp6,ipv6_dst=2001:db8::/64,actions=dec_ttl,"
                            "output:2\n"});
  const pb::TraceReply reply = traceWords(
      &bench, "in_port=1,tcp6,ipv6_dst=2001:db8::42,tp_dst=443,nw_tos=184");
  ASSERT_EQ(reply.steps_size(), 1);
  EXPECT_TRUE(reply.steps(0).ipv6_classifier());
  ASSERT_EQ(reply.outputs_size(), 1);
  EXPECT_EQ(reply.outputs(0).port(), 2);
  EXPECT_EQ(openflow_test::checksumError(bytesOf(reply.frame())), "");
  EXPECT_THAT(explained(bench, reply),
              HasSubstr("dl_type=0x86dd,ipv6_src=2001:db8::1,"
                        "ipv6_dst=2001:db8::42,nw_proto=6,nw_tos=184,nw_ecn=0,"
                        "nw_ttl=64,tp_src=49152,tp_dst=443,tcp_flags=+syn\n"));
  EXPECT_THAT(explained(bench, reply),
              HasSubstr("IPv6 classifier, flows.txt:1\n"
                        "  set     nw_ttl 64 -> 63\n"));
}

TEST(LiveTrace, ControllerInPortAndPortsThatAreNotThere) {
  LiveBench bench({.flows = "in_port=1,actions=output:1,output:9,in_port,"
                            "controller\n"});
  const Bytes frame = tcpTo(80).bytes();
  const pb::TraceReply reply = traceFrame(&bench, frame);
  ASSERT_EQ(reply.outputs_size(), 3);
  EXPECT_EQ(reply.outputs(0).port(), 9);
  EXPECT_FALSE(reply.outputs(0).connected());
  EXPECT_EQ(bytesOf(reply.outputs(0).frame()), frame);
  EXPECT_EQ(reply.outputs(1).port(), 1);
  EXPECT_TRUE(reply.outputs(1).connected());
  EXPECT_EQ(reply.outputs(2).port(), 0);
  const Bytes toController = bytesOf(reply.outputs(2).frame());
  EXPECT_EQ(hex(toController), hex(Bytes(frame.begin(), frame.begin() + 12)) +
                                   "81310000000100000000" + hex(frame) +
                                   "00000000");
  EXPECT_THAT(
      explained(bench, reply),
      HasSubstr(fmt::format(
          "  output  port 9, which the switch does not have\n"
          "  output  port 1, where it came in\n"
          "  output  controller, reason action\n"
          "  note    not to port 1: the packet came in there, and only the "
          "action in_port sends back\n"
          "leaves by port 9 (lost: there is none), port 1: 54 bytes\n"
          "  {}\n"
          "leaves by controller: 80 bytes\n",
          hex(frame))));
}

TEST(LiveTrace, NotesAnInPortThatIsNotThere) {
  LiveBench bench(
      {.flows = "actions=goto_table:1\ntable=1,actions=output:3\n"});
  const auto notes = [&](const char* packet) {
    const pb::TraceReply reply = traceWords(&bench, packet);
    EXPECT_EQ(reply.steps_size(), 2);
    EXPECT_EQ(reply.steps(1).notes_size(), 0);
    return std::vector<std::string>(reply.steps(0).notes().begin(),
                                    reply.steps(0).notes().end());
  };
  EXPECT_THAT(notes("in_port=9,arp"),
              testing::ElementsAre("the switch has no port 9"));
  EXPECT_THAT(notes("in_port=2,arp"), testing::IsEmpty());
}

TEST(LiveTrace, FloodLeavesTheInPortOut) {
  LiveBench bench({.flows = "actions=flood\n"});
  const pb::TraceReply reply =
      traceWords(&bench, "in_port=2,arp,arp_tpa=10.0.0.9");
  ASSERT_EQ(reply.outputs_size(), 2);
  EXPECT_EQ(reply.outputs(0).port(), 1);
  EXPECT_EQ(reply.outputs(1).port(), 3);
  EXPECT_THAT(explained(bench, reply),
              HasSubstr("leaves by port 1, port 3: 60 bytes\n"));
}

// A flow for packets of both families has a guard in each classifier.
TEST(LiveTrace, TellsWhichClassifierFoundWhatExpired) {
  LiveBench bench({.flows = "in_port=1,actions=dec_ttl,output:3\n"});
  const pb::TraceReply v4 = traceFrame(&bench, tcpTo(80).ttl(1).bytes());
  EXPECT_EQ(v4.steps(0).drop().name(), "ttl_expired");
  EXPECT_FALSE(v4.steps(0).ipv6_classifier());
  const pb::TraceReply v6 = traceFrame(
      &bench,
      Frame::eth().ipv6(ip6("::1"), ip6("::2")).tcp(1, 2).ttl(1).bytes());
  EXPECT_EQ(v6.steps(0).drop().name(), "ttl_expired");
  EXPECT_TRUE(v6.steps(0).ipv6_classifier());
}

// More of them than there are buffers, so that each had another one before.
TEST(LiveTrace, NothingOfEarlierPacketsIsBehindAShortOne) {
  LiveBench bench({.flows = "tcp,tp_dst=0,actions=output:3\n"
                            "tcp,tp_dst=65535,actions=output:3\n"});
  const Bytes full = tcpTo(0xffff).payload(Bytes(100, 0xff)).bytes();
  for (int i = 0; i < 300; i++) {
    ASSERT_EQ(traceFrame(&bench, full).outputs_size(), 1);
  }
  const Bytes cut = tcpTo(80).keep(34).bytes();
  EXPECT_EQ(traceFrame(&bench, cut).steps(0).flow().match(), "tcp,tp_dst=0");
}

// What a rewrite writes behind a short frame's end travels with its copy, and
// the next table reads it there.
TEST(LiveTrace, ShortFramesReadAsTheModuleReadsThem) {
  LiveBench bench({.flows = "table=0,tcp,actions=mod_tp_dst:7,goto_table:1\n"
                            "table=1,tcp,tp_dst=7,actions=output:3\n"});
  const Bytes frame = tcpTo(80).keep(34).bytes();
  const pb::TraceReply reply = traceFrame(&bench, frame);
  ASSERT_EQ(reply.steps_size(), 2);
  ASSERT_EQ(reply.outputs_size(), 1);
  EXPECT_EQ(reply.outputs(0).frame().size(), 34u);
}

TEST(LiveTrace, SaysTheSameAsThePacketsThatLeave) {
  LiveBench bench(
      {.flows =
           "table=0,in_port=1,actions=mod_dl_src:02:00:00:00:00:77,"
           "goto_table:2\n"
           "table=2,tcp,tp_dst=80,actions=dec_ttl,mod_nw_tos:32,mod_nw_ecn:1,"
           "output:3\n"
           "table=2,udp,actions=mod_vlan_vid:7,output:3\n"
           "table=2,ipv6,actions=output:3\n"});
  const Frame v6 = Frame::eth().ipv6(ip6("2001:db8::1"), ip6("2001:db8::2"));
  const std::vector<Bytes> frames = {
      tcpTo(80).bytes(), tcpTo(80).ttl(2).options(7).bytes(),
      Frame::eth().ipv4(1, 2).udp(3, 4).payload("x").bytes(),
      Frame(v6).tcp(9, 9).bytes(), Frame(v6).icmp(128, 0).bytes()};
  std::vector<Bytes> told;
  for (const Bytes& frame : frames) {
    const pb::TraceReply reply = traceFrame(&bench, frame);
    ASSERT_EQ(reply.outputs_size(), 1);
    told.push_back(bytesOf(reply.outputs(0).frame()));
  }
  bench.receive(1, frames);
  bench.settled();
  EXPECT_EQ(bench.sentOnPort3(), told);
}

TEST(LiveTrace, RefusesWhatIsNoPacket) {
  LiveBench bench({.flows = "in_port=1,actions=output:3\n"});
  const auto refusal = [&](const std::string& text) {
    const pb::TraceReply reply = traceWords(&bench, text);
    EXPECT_EQ(reply.steps_size(), 0);
    EXPECT_EQ(reply.frame(), "");
    return reply.refusal();
  };
  EXPECT_EQ(refusal("tcp,tp_dst=80"),
            "the packet comes in by no port: name one, in_port=PORT (the "
            "switch has ports 1, 2, 3)");
  EXPECT_EQ(refusal("in_port=1,nw_dst=10.0.0.1"),
            "nw_dst=10.0.0.1: needs ip or arp in the match");
  EXPECT_EQ(refusal("in_port=1,tcp,udp"),
            "udp: contradicts an earlier word of the flow");
  EXPECT_EQ(refusal("in_port=1,tcp,nw_dts=1"),
            "unknown field \"nw_dts\", did you mean \"nw_dst\"?");
  EXPECT_EQ(refusal("in_port=1,priority=3,tcp"),
            "priority=3: a packet has no priority");
  EXPECT_EQ(refusal("in_port=1,tcp,actions=drop"),
            "actions=drop: a packet has no actions");
  EXPECT_EQ(refusal("in_port=1,table=32"), "table=32: 32 is above 31");
  EXPECT_EQ(refusal(std::string(5000, 'a')),
            "the packet's text has 5000 bytes; 4096 are enough for any packet");
  pb::TraceRequest request;
  EXPECT_EQ(bench->trace(request).refusal(),
            "no packet: give it as flow text or as bytes");
  request.set_text("in_port=1,arp");
  request.set_in_port(2);
  EXPECT_EQ(bench->trace(request).refusal(),
            "in_port=1 in the packet's text, but 2 was asked for");
  request.set_frame(std::string(13, '\0'));
  EXPECT_EQ(bench->trace(request).refusal(),
            "a frame has 14 to 9728 bytes, this one 13");
  request.set_frame(std::string(9729, '\0'));
  EXPECT_EQ(bench->trace(request).refusal(),
            "a frame has 14 to 9728 bytes, this one 9729");
  request.set_frame(std::string(60, '\0'));
  request.set_in_port(8192);
  EXPECT_EQ(bench->trace(request).refusal(),
            "in_port=8192: ports are numbers from 1 to 8191");
  request.set_in_port(1);
  request.set_table(32);
  EXPECT_EQ(bench->trace(request).refusal(),
            "table=32: tables are numbers from 0 to 31");
}

}  // namespace
}  // namespace ofswitch
