// SPDX-License-Identifier: BSD-3-Clause
#include <gtest/gtest.h>

#include <filesystem>
#include <iterator>

#include "veth_fixture.h"

namespace {

using bess::DropCause;
using bess::Port;
using bess::PortStats;

// Flows are dealt out to queues by their addresses and ports.
std::string UdpFrame(uint8_t source_port) {
  std::string frame = MakeFrame(60);
  frame.replace(12, 2, "\x08\x00", 2);
  frame.replace(14, 20,
                std::string("\x45\0\0\x2e\0\0\0\0\x40\x11\0\0\x0a\0\0"
                            "\x01\x0a\0\0\x02",
                            20));
  frame[35] = static_cast<char>(source_port);
  return frame;
}

TEST_F(VethTest, ReceivesWhatComesOverTheCable) {
  Ip("link set left address 02:ab:cd:ef:00:01");
  Port* port = OpenLeft();
  ASSERT_NE(port, nullptr);
  EXPECT_EQ(port->driver(), "net_af_packet");
  EXPECT_EQ(port->mtu(), 1500);
  EXPECT_EQ(port->mac(), "02:ab:cd:ef:00:01");
  EXPECT_TRUE(port->link().up);
  EXPECT_EQ(port->link().mbps, 10000u);
  const Receiver receiver = Receive(port);
  RawSocket right("right");
  const std::vector<std::string> frames = {
      MakeFrame(14), MakeFrame(60, 1), MakeFrame(1514, 2),
      MakeFrame(64, 3, true), MakeFrame(1518, 4, true)};
  for (const std::string& frame : frames) {
    ASSERT_TRUE(right.Send(frame));
  }
  const auto captured = Pull(receiver);
  ASSERT_EQ(captured.size(), frames.size());
  uint64_t bytes = 0;
  for (size_t i = 0; i < frames.size(); i++) {
    EXPECT_EQ(captured[i].bytes, frames[i]) << i;
    bytes += frames[i].size();
  }
  EXPECT_EQ(port->stats().rx_received, frames.size());
  EXPECT_EQ(port->stats().rx_bytes, bytes);
  ExpectClosed(port);
}

TEST_F(VethTest, SendsWhatFitsAndNamesWhatDoesNot) {
  Port* port = OpenLeft();
  const Sender sender = Send(port);
  RawSocket right("right");
  const std::vector<std::string> frames = {
      MakeFrame(14), MakeFrame(60, 1), MakeFrame(1514, 2),
      MakeFrame(64, 3, true), MakeFrame(1518, 4, true)};
  Push(sender, MakeFrame(13));
  Push(sender, MakeFrame(1515));
  for (const std::string& frame : frames) {
    Push(sender, frame);
  }
  Push(sender, MakeFrame(1519, 0, true));
  for (const std::string& frame : frames) {
    EXPECT_EQ(right.Receive(), frame);
  }
  EXPECT_EQ(right.Receive(), std::nullopt);
  const PortStats stats = port->stats();
  EXPECT_EQ(stats.tx_packets, frames.size());
  EXPECT_EQ(stats.drop(DropCause::kTxTooShort), 1u);
  EXPECT_EQ(stats.drop(DropCause::kTxTooLong), 2u);
  ExpectClosed(port);
}

TEST_F(VethTest, SendsPacketsOfSeveralSegments) {
  Port* port = OpenLeft();
  const Sender sender = Send(port);
  RawSocket right("right");
  const std::string frame = MakeFrame(1000, 9);
  ASSERT_TRUE(sender.source->Push(MakePacket(frame, 300)));
  worker()->Run(sender.task());
  EXPECT_EQ(right.Receive(), frame);
}

TEST_F(VethTest, CountsWhatCameWhileItsRingWasFull) {
  Port* port = OpenLeft();
  const Receiver receiver = Receive(port);
  RawSocket right("right");
  constexpr uint64_t kFrames = 5000;
  uint64_t received = 0;
  // The kernel forgets its count when it is asked.
  for (uint64_t sent : {kFrames, 2 * kFrames}) {
    for (uint64_t i = 0; i < kFrames; i++) {
      ASSERT_TRUE(right.Send(MakeFrame(60)));
    }
    received += Pull(receiver).size();
    const PortStats stats = port->stats();
    EXPECT_LT(received, sent) << "the ring was not full";
    EXPECT_EQ(stats.rx_packets, received);
    EXPECT_EQ(stats.drop(DropCause::kRxMissed), sent - received);
    EXPECT_EQ(stats.rx_received, sent);
    ExpectClosed(port);
  }
}

// Each port asks its own sockets: the kernel forgets what it was asked for.
TEST_F(VethTest, CountsNothingThatOthersHaveMissed) {
  Port* port = OpenLeft();
  Port* other = Open("right", {.device = "net_af_packet1,iface=right"});
  ASSERT_NE(other, nullptr);
  RawSocket right("right");
  constexpr uint64_t kFrames = 5000;
  for (uint64_t i = 0; i < kFrames; i++) {
    ASSERT_TRUE(right.Send(MakeFrame(60)));
  }
  EXPECT_EQ(other->stats().rx_received, 0u);
  const uint64_t received = Pull(Receive(port)).size();
  EXPECT_LT(received, kFrames) << "the ring was not full";
  EXPECT_EQ(port->stats().drop(DropCause::kRxMissed), kFrames - received);
}

TEST_F(VethTest, LosesNothingForWantOfBuffersAsLongAsItsRingHasRoom) {
  bess::PacketPool small(63, 0);
  Port* port =
      Open("left", {.device = "net_af_packet0,iface=left", .pool = &small});
  ASSERT_NE(port, nullptr);
  const Receiver receiver = Receive(port);
  std::vector<bess::Packet*> held;
  while (bess::Packet* pkt = small.Alloc()) {
    held.push_back(pkt);
  }
  RawSocket right("right");
  for (int i = 0; i < 100; i++) {
    ASSERT_TRUE(right.Send(MakeFrame(60)));
  }
  EXPECT_EQ(Pull(receiver).size(), 0u);
  bess::Packet::Free(held.data(), held.size());
  EXPECT_EQ(Pull(receiver).size(), 100u);
  EXPECT_EQ(port->stats().rx_received, 100u);
  ExpectClosed(port);
  bess::DestroyAllModules();
  ASSERT_EQ(bess::ClosePort("left"), "");
}

TEST_F(VethTest, SendsNoLessThanItSays) {
  Port* port = OpenLeft();
  const Sender sender = Send(port);
  const uint64_t before = ReceivedBy("right");
  Push(sender, MakeFrame(60), 50000);
  const PortStats stats = port->stats();
  EXPECT_EQ(stats.tx_entered, 50000u);
  EXPECT_EQ(ReceivedBy("right") - before, stats.tx_packets);
  ExpectClosed(port);
}

TEST_F(VethTest, DoesNotReceiveWhatTheKernelSends) {
  Port* port = OpenLeft();
  const Receiver receiver = Receive(port);
  RawSocket right("right");
  RawSocket kernel("left");
  ASSERT_TRUE(kernel.Send(MakeFrame(60, 1)));
  EXPECT_EQ(right.Receive(), MakeFrame(60, 1));
  EXPECT_EQ(Pull(receiver).size(), 0u);
  EXPECT_EQ(port->stats().rx_received, 0u);
}

TEST_F(VethTest, NoQueueReceivesWhatTheKernelSends) {
  Port* port = OpenLeft(",qpairs=3");
  ASSERT_NE(port, nullptr);
  RawSocket kernel("left");
  RawSocket right("right");
  for (uint8_t flow = 0; flow < 64; flow++) {
    ASSERT_TRUE(kernel.Send(UdpFrame(flow)));
  }
  ASSERT_TRUE(right.Send(MakeFrame(60, 1)));
  size_t received = 0;
  for (uint16_t queue = 0; queue < 3; queue++) {
    received += Pull(Receive(port, queue)).size();
  }
  EXPECT_EQ(received, 1u);
  EXPECT_EQ(port->stats().rx_received, 1u);
}

TEST_F(VethTest, DropsFramesThatTheInterfaceMerged) {
  Port* port = OpenLeft();
  const Receiver receiver = Receive(port);
  RawSocket right("right");
  // Two tags fit behind the longest frame.
  for (const size_t len : {9000, 1523, 1522}) {
    ASSERT_TRUE(right.SendUncut(len));
  }
  ASSERT_TRUE(right.Send(MakeFrame(60, 1)));
  const auto captured = Pull(receiver);
  ASSERT_EQ(captured.size(), 2u);
  EXPECT_EQ(captured[0].bytes.size(), 1522u);
  EXPECT_EQ(captured[1].bytes, MakeFrame(60, 1));
  EXPECT_EQ(port->stats().drop(DropCause::kRxTooLong), 2u);
  EXPECT_EQ(port->stats().rx_received, 4u);
  EXPECT_EQ(port->stats().rx_bytes, 1522u + 60);
  ExpectClosed(port);
}

// A part of an IPv4 packet of UDP; `at` and `len` are multiples of 8.
std::string Fragment(size_t at, size_t len, bool more) {
  const auto word = [](size_t value) {
    return std::string{static_cast<char>(value >> 8), static_cast<char>(value)};
  };
  const std::string addresses("\x0a\0\0\1\x0a\0\0\2", 8);
  const std::string header = std::string("\x45\0", 2) + word(20 + len) +
                             word(4711) + word(at / 8 + (more ? 0x2000 : 0)) +
                             std::string("\x40\x11\0\0", 4) + addresses;
  return MakeFrame(12) + std::string("\x08\0", 2) + header +
         std::string(len, 'x');
}

// The driver asks the kernel to put them together, and the whole is too long.
TEST_F(VethTest, DropsIpv4Fragments) {
  Port* port = OpenLeft();
  const Receiver receiver = Receive(port);
  RawSocket right("right");
  ASSERT_TRUE(right.Send(Fragment(0, 1480, true)));
  ASSERT_TRUE(right.Send(Fragment(1480, 1480, false)));
  ASSERT_TRUE(right.Send(Fragment(0, 64, false)));  // is whole
  const auto captured = Pull(receiver);
  ASSERT_EQ(captured.size(), 1u);
  EXPECT_EQ(captured[0].bytes, Fragment(0, 64, false));
  EXPECT_EQ(port->stats().drop(DropCause::kRxTooLong), 1u);
  EXPECT_EQ(std::string(bess::Info(DropCause::kRxTooLong).sentence),
            "The frame came longer than the interface's MTU allows: an offload "
            "merged several (ethtool -K switches it off), or the kernel IPv4 "
            "fragments.");
  ExpectClosed(port);
}

class VethLinkTest : public VethTest,
                     public testing::WithParamInterface<const char*> {};

TEST_P(VethLinkTest, SendsNothingWhileTheLinkIsDown) {
  const std::string end = GetParam();
  Port* port = OpenLeft();
  const Sender sender = Send(port);
  const uint64_t before = ReceivedBy("right");
  Push(sender, MakeFrame(60), 3);
  EXPECT_EQ(port->stats().tx_packets, 3u);

  Ip("link set " + end + " down");
  // The port may not have noticed yet. What it hands over then waits.
  Push(sender, MakeFrame(60), 5);
  ASSERT_TRUE(LinkGoes(port, false));
  EXPECT_FALSE(port->link().up);
  ExpectClosed(port);
  const uint64_t dropped = port->stats().drop(DropCause::kTxPortDown);
  Push(sender, MakeFrame(60), 7);
  EXPECT_EQ(port->stats().drop(DropCause::kTxPortDown) - dropped, 7u);

  Ip("link set " + end + " up");
  ASSERT_TRUE(LinkGoes(port, true));
  EXPECT_EQ(ReceivedBy("right") - before, port->stats().tx_packets);
  Push(sender, MakeFrame(60));
  const PortStats stats = port->stats();
  EXPECT_EQ(stats.tx_packets + stats.drop(DropCause::kTxPortDown), 16u);
  EXPECT_EQ(ReceivedBy("right") - before, stats.tx_packets);
  ExpectClosed(port);
}

INSTANTIATE_TEST_SUITE_P(Ends, VethLinkTest, testing::Values("left", "right"),
                         [](const auto& row) { return row.param; });

TEST_F(VethTest, StaysWithItsInterfaceUnderAnotherName) {
  Port* port = OpenLeft();
  Ip("link set left down");
  // As long as a name can be.
  Ip("link set left name fifteen-letters");
  Ip("link set fifteen-letters up");
  ASSERT_TRUE(LinkGoes(port, true));
  Ip("link set fifteen-letters down");
  ASSERT_TRUE(LinkGoes(port, false));
  Ip("link set fifteen-letters name left");
}

// The port asks ten times a second, for days.
TEST_F(VethTest, LeavesNoFileOpenThatItAskedThrough) {
  Port* port = OpenLeft();
  ASSERT_NE(port, nullptr);
  const auto open_files = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                         std::filesystem::directory_iterator());
  };
  const auto before = open_files();
  for (int i = 0; i < 100; i++) {
    port->Refresh();
    EXPECT_TRUE(port->link().up);
  }
  EXPECT_LT(open_files(), before + 10) << "the port's own thread asks, too";
}

// Also when there is another interface of that name.
TEST_F(VethTest, SendsNothingToAnInterfaceThatIsGone) {
  Port* port = OpenLeft();
  const Sender sender = Send(port);
  Push(sender, MakeFrame(60));
  Ip("link del left");
  ASSERT_TRUE(LinkGoes(port, false));
  EXPECT_FALSE(port->link().up);
  Ip("link add left type veth peer name right");
  Ip("link set left up");
  Ip("link set right up");
  port->Refresh();
  EXPECT_FALSE(port->link_up());
  const PortStats before = port->stats();
  Push(sender, MakeFrame(60), 7);
  const PortStats after = port->stats();
  EXPECT_EQ(after.tx_packets, before.tx_packets);
  EXPECT_EQ(
      after.drop(DropCause::kTxPortDown) - before.drop(DropCause::kTxPortDown),
      7u);
  ExpectClosed(port);
}

TEST_F(VethTest, ReadsAllQueues) {
  Port* port = OpenLeft(",qpairs=3");
  ASSERT_NE(port, nullptr);
  EXPECT_EQ(port->rx_queues(), 3);
  EXPECT_EQ(port->tx_queues(), 3);
  RawSocket right("right");
  for (uint8_t flow = 0; flow < 64; flow++) {
    ASSERT_TRUE(right.Send(UdpFrame(flow)));
  }
  size_t received = 0;
  int queues = 0;
  for (uint16_t queue = 0; queue < 3; queue++) {
    const size_t here = Pull(Receive(port, queue)).size();
    received += here;
    queues += here > 0;
  }
  EXPECT_EQ(received, 64u);
  EXPECT_GT(queues, 1);
  EXPECT_EQ(port->stats().rx_received, 64u);
}

TEST_F(VethTest, CanBeOpenedAgain) {
  for (int round = 0; round < 3; round++) {
    Port* port = OpenLeft();
    ASSERT_NE(port, nullptr);
    RawSocket right("right");
    Push(Send(port), MakeFrame(60, 1));
    EXPECT_EQ(right.Receive(), MakeFrame(60, 1));
    ASSERT_TRUE(right.Send(MakeFrame(60, 2)));
    EXPECT_EQ(Pull(Receive(port)).size(), 1u);
    bess::DestroyAllModules();
    ASSERT_EQ(bess::ClosePort("left"), "");
  }
}

}  // namespace
