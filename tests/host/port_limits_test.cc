// SPDX-License-Identifier: BSD-3-Clause
//
// Ports on devices with other abilities than those that every machine has.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rte_dev.h>
#include <rte_ethdev.h>
#include <rte_log.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <utility>

#include "dpdk_log.h"
#include "port_harness.h"

namespace {

std::function<int(rte_eth_dev_info*)> tell;
// Atomic, as the thread that watches links asks, too.
std::atomic<bool> other_link = false;
std::atomic<rte_eth_link> link_told;
std::atomic<int> links_asked = 0;
std::pair<uint16_t, uint16_t> descriptors;
rte_eth_conf configured;
int probe_code = 0;
std::string refused;  // what a device does not do: "start"
const char* excuse = "";

int Refusal(const std::string& step) {
  if (step != refused) {
    return 0;
  }
  rte_log(RTE_LOG_ERR, RTE_LOGTYPE_USER1, "%s", excuse);
  return -EIO;
}

template <typename F>
F* Next(F*, const char* name) {
  return reinterpret_cast<F*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// In front of DPDK's own: what a device tells, and how it is set up.
extern "C" int rte_eth_dev_info_get(uint16_t port, rte_eth_dev_info* info) {
  static const auto real = Next(rte_eth_dev_info_get, "rte_eth_dev_info_get");
  const int code = real(port, info);
  return code == 0 && tell ? tell(info) : code;
}

extern "C" int rte_dev_probe(const char* devargs) {
  static const auto real = Next(rte_dev_probe, "rte_dev_probe");
  return probe_code != 0 ? probe_code : real(devargs);
}

extern "C" int rte_eth_dev_configure(uint16_t port, uint16_t rx, uint16_t tx,
                                     const rte_eth_conf* conf) {
  static const auto real = Next(rte_eth_dev_configure, "rte_eth_dev_configure");
  configured = *conf;
  const int code = Refusal("configure");
  return code != 0 ? code : real(port, rx, tx, conf);
}

extern "C" int rte_eth_link_get_nowait(uint16_t port, rte_eth_link* link) {
  static const auto real =
      Next(rte_eth_link_get_nowait, "rte_eth_link_get_nowait");
  const int code = real(port, link);
  links_asked++;
  if (other_link) {
    *link = link_told;
  }
  return code;
}

extern "C" int rte_eth_dev_adjust_nb_rx_tx_desc(uint16_t port, uint16_t* rx,
                                                uint16_t* tx) {
  static const auto real = Next(rte_eth_dev_adjust_nb_rx_tx_desc,
                                "rte_eth_dev_adjust_nb_rx_tx_desc");
  descriptors = {*rx, *tx};
  const int code = Refusal("descriptors");
  return code != 0 ? code : real(port, rx, tx);
}

extern "C" int rte_eth_rx_queue_setup(uint16_t port, uint16_t queue,
                                      uint16_t length, unsigned socket,
                                      const rte_eth_rxconf* conf,
                                      rte_mempool* pool) {
  static const auto real =
      Next(rte_eth_rx_queue_setup, "rte_eth_rx_queue_setup");
  const int code = Refusal("receive from " + std::to_string(queue));
  return code != 0 ? code : real(port, queue, length, socket, conf, pool);
}

extern "C" int rte_eth_tx_queue_setup(uint16_t port, uint16_t queue,
                                      uint16_t length, unsigned socket,
                                      const rte_eth_txconf* conf) {
  static const auto real =
      Next(rte_eth_tx_queue_setup, "rte_eth_tx_queue_setup");
  const int code = Refusal("send from " + std::to_string(queue));
  return code != 0 ? code : real(port, queue, length, socket, conf);
}

extern "C" int rte_eth_dev_start(uint16_t port) {
  static const auto real = Next(rte_eth_dev_start, "rte_eth_dev_start");
  const int code = Refusal("start");
  return code != 0 ? code : real(port);
}

namespace {

using bess::DropCause;
using bess::Port;
using testing::HasSubstr;
using testing::Pair;

class PortLimitsTest : public PortTest {
 protected:
  ~PortLimitsTest() override {
    probe_code = 0;
    refused.clear();
    tell = nullptr;
    other_link = false;
  }
};

TEST_F(PortLimitsTest, ADeviceMaySendAsManySegmentsAsItLikes) {
  tell = [](rte_eth_dev_info* info) {
    info->tx_desc_lim.nb_seg_max = 0;
    return 0;
  };
  Port* port = Open("loop", {.device = "net_ring0", .mtu = 9000});
  ASSERT_NE(port, nullptr);
  EXPECT_EQ(port->max_segments(), UINT16_MAX);
  const Receiver receiver = Receive(port);
  Push(Send(port), MakeFrame(9014, 5));
  const auto captured = Pull(receiver);
  ASSERT_EQ(captured.size(), 1u);
  EXPECT_EQ(captured[0].segments, 5);
}

TEST_F(PortLimitsTest, ADeviceHasOneQueueAtLeastAndAllThatItSpreadsOver) {
  const Port* none =
      Open("none", {.device = "net_null0", .rx_queues = 0, .tx_queues = 0});
  ASSERT_NE(none, nullptr);
  EXPECT_EQ(none->rx_queues(), 1);
  EXPECT_EQ(none->tx_queues(), 1);
  const Port* two =
      Open("two", {.device = "net_pcap0,tx_pcap=/dev/null,tx_pcap=/dev/null"});
  ASSERT_NE(two, nullptr);
  EXPECT_EQ(two->tx_queues(), 2);
  const std::string path = testing::TempDir() + "port_limits_test.pcap";
  std::ofstream(path) << std::string(  // a capture without frames
      "\xd4\xc3\xb2\xa1\2\0\4\0\0\0\0\0\0\0\0\0\xff\xff\0\0\1\0\0\0", 24);
  const Port* both = Open(
      "both", {.device = "net_pcap1,rx_pcap=" + path + ",rx_pcap=" + path});
  remove(path.c_str());
  ASSERT_NE(both, nullptr);
  EXPECT_EQ(both->rx_queues(), 2);
}

TEST_F(PortLimitsTest, ADeviceMaySendNoChainsThatItReceives) {
  const auto open = [&](uint64_t rx, uint64_t tx) {
    tell = [=](rte_eth_dev_info* info) {
      info->rx_offload_capa = rx;
      info->tx_offload_capa = tx;
      info->tx_desc_lim.nb_seg_max = 8;
      return 0;
    };
    const Port* port = Open("loop", {.device = "net_ring0"});
    const uint16_t segments = port != nullptr ? port->max_segments() : 0;
    EXPECT_EQ(bess::ClosePort("loop"), "");
    return segments;
  };
  EXPECT_EQ(open(RTE_ETH_RX_OFFLOAD_SCATTER, 0), 1);
  EXPECT_EQ(open(0, RTE_ETH_TX_OFFLOAD_MULTI_SEGS), 8);
}

TEST_F(PortLimitsTest, PacketsInMorePiecesArePutTogetherOrDropped) {
  tell = [](rte_eth_dev_info* info) {
    info->tx_desc_lim.nb_seg_max = 4;
    return 0;
  };
  Port* port = Open("loop", {.device = "net_ring0", .mtu = 9000});
  ASSERT_NE(port, nullptr);
  EXPECT_EQ(port->max_segments(), 4);
  const Receiver receiver = Receive(port);
  const Sender sender = Send(port);
  const std::string frame = MakeFrame(1000, 9);
  for (const size_t segment : {250, 249}) {  // four of them, and one more
    ASSERT_TRUE(sender.source->Push(MakePacket(frame, segment)));
  }
  ASSERT_TRUE(sender.source->Push(MakePacket(MakeFrame(9014))));
  worker()->Run(sender.task());
  const auto captured = Pull(receiver);
  ASSERT_EQ(captured.size(), 2u);
  EXPECT_EQ(captured[0].segments, 4);
  EXPECT_EQ(captured[0].bytes, frame);
  EXPECT_EQ(captured[1].segments, 1);
  EXPECT_EQ(captured[1].bytes, frame);
  EXPECT_EQ(port->stats().drop(DropCause::kTxTooManySegments), 1u);
  EXPECT_EQ(port->stats().tx_bytes, 2000u);
  ExpectClosed(port);
}

TEST_F(PortLimitsTest, AFrameIsNoLongerThanABufferWithoutChains) {
  tell = [](rte_eth_dev_info* info) {
    info->rx_offload_capa &= ~RTE_ETH_RX_OFFLOAD_SCATTER;
    return 0;
  };
  EXPECT_THAT(Failure({.device = "net_ring0", .mtu = 2027}),
              HasSubstr("MTU 2027: net_ring carries at most 2026 bytes"));
  Port* port = Open("loop", {.device = "net_ring0", .mtu = 2026});
  ASSERT_NE(port, nullptr);
  EXPECT_EQ(port->mtu(), 2026);
}

TEST_F(PortLimitsTest, ADriverThatSaysNothingIsToldByItsCode) {
  const std::string port = "port 'p', device 'net_null0': ";
  for (const auto& [code, text] : {
           std::pair(-ENOMEM, "the driver refuses it: Cannot allocate memory"),
           std::pair(-1, "the driver refuses it: Invalid argument"),
           std::pair(-EEXIST, "DPDK has a device of that name already"),
       }) {
    probe_code = code;
    EXPECT_EQ(Failure({.device = "net_null0"}), port + text);
  }
  probe_code = 0;
  EXPECT_EQ(Failure({.device = "net_null0"}), "");
}

// A device does not carry chains by itself because it could.
TEST_F(PortLimitsTest, ChainsAreAskedForWhereThereAreAny) {
  uint64_t rx = RTE_ETH_RX_OFFLOAD_SCATTER;
  uint64_t tx = RTE_ETH_TX_OFFLOAD_MULTI_SEGS;
  tell = [&](rte_eth_dev_info* info) {
    info->rx_offload_capa = rx;
    info->tx_offload_capa = tx;
    return 0;
  };
  EXPECT_EQ(Failure({.device = "net_ring0", .mtu = 1400}), "");
  EXPECT_EQ(configured.rxmode.offloads, rx);
  EXPECT_EQ(configured.txmode.offloads, tx);
  EXPECT_EQ(configured.rxmode.mtu, 1400u);
  EXPECT_EQ(bess::ClosePort("p"), "");
  rx = tx = 0;
  EXPECT_EQ(Failure({.device = "net_ring0"}), "");
  EXPECT_EQ(configured.rxmode.offloads, 0u);
  EXPECT_EQ(configured.txmode.offloads, 0u);
}

// DPDK has other devices, too.
TEST_F(PortLimitsTest, OneThatCarriesNoPacketsIsGivenBack) {
  EXPECT_EQ(Failure({.device = "crypto_null0"}),
            "port 'p', device 'crypto_null0': it is no Ethernet device");
  const bess::DpdkLogCapture quiet;
  EXPECT_LT(rte_eal_hotplug_remove("vdev", "crypto_null0"), 0)
      << "DPDK still has it";
}

TEST_F(PortLimitsTest, OneThatTellsNothingIsClosedAgain) {
  tell = [](rte_eth_dev_info*) { return -EIO; };
  EXPECT_THAT(Failure({.device = "net_null0"}),
              HasSubstr("the device does not tell what it can do: "
                        "Input/output error"));
  tell = nullptr;
  EXPECT_EQ(Failure({.device = "net_null0"}), "");
}

// Whichever it is, nothing is left that would keep it from opening.
TEST_F(PortLimitsTest, SaysWhichStepADeviceRefuses) {
  const bess::PortOptions options = {
      .device = "net_null0", .rx_queues = 2, .tx_queues = 3};
  const std::pair<const char*, const char*> steps[] = {
      {"configure", "it cannot have 2 receive and 3 transmit queues"},
      {"descriptors", "it cannot have queues of that many descriptors"},
      {"receive from 1", "receive queue 1 cannot be set up"},
      {"send from 2", "transmit queue 2 cannot be set up"},
      {"start", "it does not start"}};
  for (const auto& [step, text] : steps) {
    refused = step;
    EXPECT_EQ(Failure(options), std::string("port 'p', device 'net_null0': ") +
                                    text + ": Input/output error");
    refused.clear();
    EXPECT_EQ(Failure(options), "") << "after: " << text;
    EXPECT_EQ(bess::ClosePort("p"), "");
  }
  // A driver may know more.
  refused = "start";
  excuse = "net_null: has no cable\n";
  EXPECT_EQ(Failure(options),
            "port 'p', device 'net_null0': it does not start: net_null: has no "
            "cable");
  excuse = "";
}

TEST_F(PortLimitsTest, QueuesAreAsLongAsAskedForOrAsTheDriverLikes) {
  uint16_t liked = 0;
  tell = [&](rte_eth_dev_info* info) {
    info->default_rxportconf.ring_size = liked;
    info->default_txportconf.ring_size = static_cast<uint16_t>(2 * liked);
    return 0;
  };
  EXPECT_EQ(Failure({.device = "net_null0"}), "");
  EXPECT_THAT(descriptors, Pair(512, 512));
  EXPECT_EQ(bess::ClosePort("p"), "");
  liked = 256;
  EXPECT_EQ(Failure({.device = "net_null0"}), "");
  EXPECT_THAT(descriptors, Pair(256, 512));
  EXPECT_EQ(bess::ClosePort("p"), "");
  EXPECT_EQ(
      Failure(
          {.device = "net_null0", .rx_descriptors = 64, .tx_descriptors = 128}),
      "");
  EXPECT_THAT(descriptors, Pair(64, 128));
}

// Ten times a second; some of them may be late.
TEST_F(PortLimitsTest, ALinkIsLookedAtAgainAndAgain) {
  const auto threads = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"),
                         std::filesystem::directory_iterator());
  };
  bess::ListModules();  // the command thread is there
  const auto threads_before = threads();
  Open("null", {.device = "net_null0"});
  const int before = links_asked;
  for (int i = 0; i < 10; i++) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  EXPECT_GE(links_asked - before, 4);
  EXPECT_EQ(bess::ClosePort("null"), "");
  const int after = links_asked;
  std::this_thread::sleep_for(std::chrono::milliseconds(250));
  EXPECT_EQ(links_asked, after) << "there is nothing to look at";
  EXPECT_EQ(threads(), threads_before) << "and nobody to do it";
}

TEST_F(PortLimitsTest, ALinkTellsItsSpeedIfItHasAny) {
  const Port* port = Open("null", {.device = "net_null0"});
  rte_eth_link device = {};
  device.link_status = RTE_ETH_LINK_UP;
  device.link_speed = 25000;
  device.link_duplex = RTE_ETH_LINK_FULL_DUPLEX;
  link_told = device;
  other_link = true;
  EXPECT_TRUE(port->link().up);
  EXPECT_EQ(port->link().mbps, 25000u);
  EXPECT_TRUE(port->link().full_duplex);
  device.link_speed = RTE_ETH_SPEED_NUM_UNKNOWN;
  device.link_duplex = RTE_ETH_LINK_HALF_DUPLEX;
  link_told = device;
  EXPECT_EQ(port->link().mbps, 0u);
  EXPECT_FALSE(port->link().full_duplex);
  device.link_status = RTE_ETH_LINK_DOWN;
  link_told = device;
  EXPECT_FALSE(port->link().up);
}

}  // namespace
