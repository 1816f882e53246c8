// SPDX-License-Identifier: BSD-3-Clause
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "interface_fixture.h"

namespace {

using bess::DropCause;
using bess::Port;
using bess::PortOptions;
using bess::PortStats;
using testing::HasSubstr;

// A tap has no speed: what it is told is all that anybody knows.
void SetSpeed(const char* interface, uint32_t mbps) {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ethtool_cmd link = {};
  ifreq request = {};
  strncpy(request.ifr_name, interface, IFNAMSIZ - 1);
  request.ifr_data = reinterpret_cast<char*>(&link);
  link.cmd = ETHTOOL_GSET;
  EXPECT_EQ(ioctl(fd, SIOCETHTOOL, &request), 0);
  link.cmd = ETHTOOL_SSET;
  ethtool_cmd_speed_set(&link, mbps);
  EXPECT_EQ(ioctl(fd, SIOCETHTOOL, &request), 0);
  close(fd);
}

class TapTest : public InterfaceTest {};

TEST_F(TapTest, IsAnInterfaceAsLongAsItIsOpen) {
  for (int round = 0; round < 2; round++) {
    Port* port = Open("tap", {.device = "net_tap0,iface=tap0"});
    ASSERT_NE(port, nullptr);
    EXPECT_NE(if_nametoindex("tap0"), 0u);
    ASSERT_TRUE(LinkGoes(port, true));
    SetSpeed("tap0", 2500);
    EXPECT_EQ(port->link().mbps, 2500u) << "as the kernel says";
    SetSpeed("tap0", static_cast<uint32_t>(SPEED_UNKNOWN));
    EXPECT_EQ(port->link().mbps, 0u);
    RawSocket kernel("tap0");
    const Sender sender = Send(port);
    Push(sender, MakeFrame(60, 1));
    Push(sender, MakeFrame(1515, 1));
    Push(sender, MakeFrame(1518, 2, true));
    EXPECT_EQ(kernel.Receive(), MakeFrame(60, 1));
    EXPECT_EQ(kernel.Receive(), MakeFrame(1518, 2, true));
    ASSERT_TRUE(kernel.Send(MakeFrame(1514, 3)));
    const auto captured = Pull(Receive(port));
    ASSERT_EQ(captured.size(), 1u);
    EXPECT_EQ(captured[0].bytes, MakeFrame(1514, 3));
    EXPECT_EQ(port->stats().tx_packets, 2u);
    EXPECT_EQ(port->stats().drop(DropCause::kTxTooLong), 1u);
    ExpectClosed(port);
    bess::DestroyAllModules();
    ASSERT_EQ(bess::ClosePort("tap"), "");
    EXPECT_EQ(if_nametoindex("tap0"), 0u);
  }
}

TEST_F(TapTest, CountsWhatADownInterfaceDoesNotTake) {
  Port* port = Open("tap", {.device = "net_tap0,iface=tap0"});
  ASSERT_TRUE(LinkGoes(port, true));
  const Sender sender = Send(port);
  Ip("link set tap0 down");
  Push(sender, MakeFrame(60), 40);
  ASSERT_TRUE(LinkGoes(port, false));
  Push(sender, MakeFrame(60), 2);
  const PortStats stats = port->stats();
  EXPECT_EQ(stats.tx_packets, 0u);
  EXPECT_GE(stats.drop(DropCause::kTxPortDown), 2u);
  EXPECT_EQ(
      stats.drop(DropCause::kTxPortDown) + stats.drop(DropCause::kTxQueueFull),
      42u);
  ExpectClosed(port);
}

TEST_F(TapTest, HasAsManyQueuesAsAskedFor) {
  Port* port = Open(
      "tap", {.device = "net_tap0,iface=tap0", .rx_queues = 2, .tx_queues = 3});
  ASSERT_NE(port, nullptr);
  EXPECT_EQ(port->rx_queues(), 3);
  EXPECT_EQ(port->tx_queues(), 3);
}

TEST_F(TapTest, SurvivesBeingMovedToAnotherNamespace) {
  Port* port = Open("tap", {.device = "net_tap0,iface=tap0"});
  ASSERT_TRUE(LinkGoes(port, true));
  const OtherNamespace other;
  const std::string pid = std::to_string(other.pid());
  Ip("link set tap0 netns " + pid);
  const std::string in_other = "nsenter -t " + pid + " -n ip link set tap0 up";
  ASSERT_EQ(system(in_other.c_str()), 0);
  port->Refresh();
  EXPECT_TRUE(port->link_up());
  EXPECT_EQ(port->mtu(), 1500);
  Push(Send(port), MakeFrame(60), 10);
  EXPECT_EQ(port->stats().tx_packets, 10u);
  ExpectClosed(port);
}

TEST_F(TapTest, CountsFramesThatFoundNoBuffer) {
  bess::PacketPool small(1023, 0);
  Port* port = Open(
      "tap",
      {.device = "net_tap0,iface=tap0", .rx_descriptors = 256, .pool = &small});
  ASSERT_NE(port, nullptr);
  ASSERT_TRUE(LinkGoes(port, true));
  const Receiver receiver = Receive(port);
  std::vector<bess::Packet*> held;
  while (bess::Packet* pkt = small.Alloc()) {
    held.push_back(pkt);
  }
  RawSocket kernel("tap0");
  for (int i = 0; i < 50; i++) {
    ASSERT_TRUE(kernel.Send(MakeFrame(60)));
  }
  const size_t received = Pull(receiver).size();
  bess::Packet::Free(held.data(), held.size());
  // The driver looks at what waits in the kernel when the next frame comes.
  ASSERT_TRUE(kernel.Send(MakeFrame(60)));
  const size_t rest = Pull(receiver).size();
  const PortStats stats = port->stats();
  EXPECT_EQ(stats.rx_packets, received + rest);
  EXPECT_GT(stats.drop(DropCause::kRxNoBuffer), 0u);
  EXPECT_EQ(stats.rx_received, 51u);
  ExpectClosed(port);
  bess::DestroyAllModules();
  ASSERT_EQ(bess::ClosePort("tap"), "");
}

TEST_F(TapTest, RefusesAPoolThatItsQueueEmpties) {
  bess::PacketPool small(511, 0);
  bess::PacketPool enough(512, 0);
  PortOptions options = {.device = "net_tap0,iface=tap0",
                         .rx_queues = 2,
                         .rx_descriptors = 256,
                         .pool = &small};
  EXPECT_THAT(Failure(options),
              HasSubstr("its receive queues hold 512 packets, but the packet "
                        "pool has only 511"));
  options.pool = &enough;
  EXPECT_EQ(Failure(options), "");
  EXPECT_EQ(bess::ClosePort("p"), "");
}

TEST_F(TapTest, RefusesToCopyWhatNoInterfaceHas) {
  EXPECT_THAT(Failure({.device = "net_tap0,iface=tap0,remote=nope0"}),
              HasSubstr("there is no network interface 'nope0'"));
}

TEST_F(TapTest, RefusesMtusBeyondItsLimit) {
  EXPECT_THAT(Failure({.device = "net_tap0,iface=tap0", .mtu = 9000}),
              HasSubstr("MTU 9000: net_tap carries at most 1504 bytes"));
  EXPECT_EQ(if_nametoindex("tap0"), 0u);
}

}  // namespace
