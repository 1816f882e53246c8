// SPDX-License-Identifier: BSD-3-Clause
//
// What a device says that it has lost, as operators are told of it.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <rte_ethdev.h>

#include <atomic>
#include <map>

#include "service.grpc.pb.h"
#include "tests/control_door/control_bench.h"
#include "tests/support/frame.h"

namespace {

// Read by the threads that ask.
std::atomic<bool> losesPackets = false;
std::atomic<bool> isUnplugged = false;

}  // namespace

// In front of DPDK's own, whose rings lose nothing.
extern "C" int rte_eth_stats_get(uint16_t port, rte_eth_stats* stats) {
  static const auto real = reinterpret_cast<decltype(&rte_eth_stats_get)>(
      dlsym(RTLD_NEXT, "rte_eth_stats_get"));
  const int result = real(port, stats);
  if (losesPackets && stats->ipackets > 0) {
    stats->imissed += 3;
    stats->rx_nombuf += 5;
    stats->ierrors += 11;
  }
  return result;
}

// Likewise: its rings are always connected.
extern "C" int rte_eth_link_get_nowait(uint16_t port, rte_eth_link* link) {
  static const auto real = reinterpret_cast<decltype(&rte_eth_link_get_nowait)>(
      dlsym(RTLD_NEXT, "rte_eth_link_get_nowait"));
  const int result = real(port, link);
  if (isUnplugged) link->link_status = RTE_ETH_LINK_DOWN;
  return result;
}

namespace ofswitch {
namespace {

TEST(UnpluggedPorts, AreToldToBeDown) {
  ControlBench control;
  EXPECT_TRUE(control.bench()->ports().ports(1).link_up());
  isUnplugged = true;
  const pb::PortsReply ports = control.bench()->ports();
  isUnplugged = false;
  EXPECT_FALSE(ports.ports(1).link_up());
  EXPECT_TRUE(ports.ports(0).link_up()) << "the controller has no cable";
}

TEST(MissedPackets, AreReceivedAndNotHandedOn) {
  ControlBench control({.flows = "actions=output:3\n"});
  control.bench().receive(
      1, openflow_test::Frame::eth().ipv4(1, 2).udp(3, 4).bytes(), 4);
  control.bench().settled();
  losesPackets = true;
  const auto host = bess::pb::Host::NewStub(control.connect());
  grpc::ClientContext context;
  bess::pb::StatisticsResponse reply;
  EXPECT_TRUE(host->GetStatistics(&context, {}, &reply).ok());
  const pb::StatsReply stats = control.bench().settled();
  losesPackets = false;

  std::map<std::string, uint64_t> counters;
  ASSERT_EQ(reply.ports_size(), 3);
  for (const auto& one : reply.ports(0).counters()) {
    counters[one.name()] = one.value();
  }
  EXPECT_EQ(counters["rx_received"], 4 + 3 + 5 + 11);
  EXPECT_EQ(counters["rx_packets"], 4);
  EXPECT_EQ(counters["rx_missed"], 3);
  EXPECT_EQ(counters["rx_no_buffer"], 5);
  EXPECT_EQ(counters["rx_error"], 11);

  EXPECT_EQ(stats.packets_received(), 4);
  EXPECT_EQ(stats.packets_sent(), 4);
  EXPECT_EQ(LiveBench::drops(stats, "rx_missed"), 3);
  EXPECT_EQ(LiveBench::drops(stats, "rx_no_buffer"), 5);
  EXPECT_EQ(LiveBench::drops(stats, "rx_error"), 11);
}

}  // namespace
}  // namespace ofswitch
