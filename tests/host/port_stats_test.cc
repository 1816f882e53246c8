// SPDX-License-Identifier: BSD-3-Clause
//
// What devices count themselves, as the port tells it.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <rte_ethdev.h>

#include "port_harness.h"

namespace {

rte_eth_stats more = {};  // than the device has counted

}  // namespace

// In front of DPDK's own: the devices here lose nothing.
extern "C" int rte_eth_stats_get(uint16_t port, rte_eth_stats* stats) {
  static const auto real = reinterpret_cast<decltype(&rte_eth_stats_get)>(
      dlsym(RTLD_NEXT, "rte_eth_stats_get"));
  const int code = real(port, stats);
  stats->imissed += more.imissed;
  stats->rx_nombuf += more.rx_nombuf;
  stats->ierrors += more.ierrors;
  stats->oerrors += more.oerrors;
  return code;
}

namespace {

using bess::DropCause;
using bess::Port;
using bess::PortStats;

class PortStatsTest : public PortTest {
 protected:
  ~PortStatsTest() override { more = {}; }

  static void Count(uint64_t missed, uint64_t no_buffer, uint64_t rx_errors,
                    uint64_t tx_errors) {
    more.imissed += missed;
    more.rx_nombuf += no_buffer;
    more.ierrors += rx_errors;
    more.oerrors += tx_errors;
  }

  static void ExpectDrops(const Port* port, uint64_t missed, uint64_t no_buffer,
                          uint64_t rx_errors, uint64_t tx_errors) {
    const PortStats stats = port->stats();
    EXPECT_EQ(stats.drop(DropCause::kRxMissed), missed);
    EXPECT_EQ(stats.drop(DropCause::kRxNoBuffer), no_buffer);
    EXPECT_EQ(stats.drop(DropCause::kRxError), rx_errors);
    EXPECT_EQ(stats.drop(DropCause::kTxError), tx_errors);
    EXPECT_EQ(stats.rx_received,
              stats.rx_packets + missed + no_buffer + rx_errors);
    ExpectClosed(port);
  }
};

TEST_F(PortStatsTest, BeginWhenThePortIsOpened) {
  // The second is a driver of which nothing is known here.
  for (const char* device : {"net_null0", "eth_null0"}) {
    Count(100, 200, 300, 400);
    const Port* port = Open("p", {.device = device});
    ASSERT_NE(port, nullptr);
    ExpectDrops(port, 0, 0, 0, 0);
    Push(Send(port), MakeFrame(60), 10);
    Count(1, 2, 3, 4);
    ExpectDrops(port, 1, 2, 3, 4);
    EXPECT_EQ(port->stats().tx_entered, 10u);
    EXPECT_EQ(port->stats().tx_packets, 6u);
    EXPECT_EQ(port->stats().tx_bytes, 600u) << "of what the device took";
    Count(10, 0, 0, 0);
    ExpectDrops(port, 11, 2, 3, 4);
    bess::DestroyAllModules();
    EXPECT_EQ(bess::ClosePort("p"), "");
  }
}

TEST_F(PortStatsTest, NoMoreThanWasSentCanHaveFailed) {
  const Port* port = Open("p", {.device = "net_null0"});
  Count(0, 0, 0, 1);
  ExpectDrops(port, 0, 0, 0, 0);
  Push(Send(port), MakeFrame(60), 10);
  ExpectDrops(port, 0, 0, 0, 1);
  Count(0, 0, 0, 20);
  ExpectDrops(port, 0, 0, 0, 10);
  EXPECT_EQ(port->stats().tx_packets, 0u);
}

// A device may begin anew with its counts.
TEST_F(PortStatsTest, NothingIsTakenBack) {
  Count(5, 6, 7, 8);
  const Port* port = Open("p", {.device = "net_null0"});
  more = {};
  ExpectDrops(port, 0, 0, 0, 0);
}

}  // namespace
