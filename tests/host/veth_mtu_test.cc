// SPDX-License-Identifier: BSD-3-Clause
//
// The longest frames: what an interface has, what its ring holds and what a
// port is asked for.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>

#include "veth_fixture.h"

namespace {

// The link is watched by a thread of its own.
std::atomic<bool> refuses_mtus = false;

}  // namespace

// In front of the system's, which lets root do as it likes.
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
  static const auto real =
      reinterpret_cast<decltype(&ioctl)>(dlsym(RTLD_NEXT, "ioctl"));
  va_list args;
  va_start(args, request);
  void* const argument = va_arg(args, void*);
  va_end(args);
  if (refuses_mtus && request == SIOCSIFMTU) {
    errno = EPERM;
    return -1;
  }
  return real(fd, request, argument);
}

namespace {

using bess::DropCause;
using bess::Port;
using testing::HasSubstr;

TEST_F(VethTest, RefusesFramesThatItsRingCannotHold) {
  Ip("link set left mtu 9000");
  const std::string error = Failure({.device = "net_af_packet0,iface=left"});
  EXPECT_THAT(error, HasSubstr("MTU 9000: net_af_packet carries at most 1959 "
                               "bytes behind the Ethernet header"));
  EXPECT_THAT(error, HasSubstr("; ip link set dev left mtu 1959"));
  Ip("link set dev left mtu 1959");
  Ip("link set dev right mtu 1959");
  Port* port = OpenLeft();
  ASSERT_NE(port, nullptr);
  EXPECT_EQ(port->mtu(), 1959);
  const Receiver receiver = Receive(port);
  RawSocket right("right");
  ASSERT_TRUE(right.Send(MakeFrame(1973, 3)));
  ASSERT_TRUE(right.Send(MakeFrame(1977, 4, true)));
  Push(Send(port), MakeFrame(1973, 5));
  EXPECT_EQ(right.Receive(), MakeFrame(1973, 5));
  const auto captured = Pull(receiver);
  ASSERT_EQ(captured.size(), 2u);
  EXPECT_EQ(captured[0].bytes, MakeFrame(1973, 3));
  EXPECT_EQ(captured[1].bytes, MakeFrame(1977, 4, true));
}

TEST_F(VethTest, SendsNoLongerFramesThanItsRingHolds) {
  Port* port = OpenLeft();
  ASSERT_NE(port, nullptr);
  Ip("link set left mtu 9000");
  port->Refresh();
  EXPECT_EQ(port->mtu(), 1959);
}

TEST_F(VethTest, HoldsLongerFramesInLargerRings) {
  Ip("link set left mtu 1991");
  Ip("link set right mtu 1991");
  Port* port = OpenLeft(",framesz=2080");
  ASSERT_NE(port, nullptr);
  EXPECT_EQ(port->mtu(), 1991);
  const Receiver receiver = Receive(port);
  RawSocket right("right");
  ASSERT_TRUE(right.Send(MakeFrame(2009, 6, true)));
  Push(Send(port), MakeFrame(2009, 7, true));
  EXPECT_EQ(right.Receive(), MakeFrame(2009, 7, true));
  const auto captured = Pull(receiver);
  ASSERT_EQ(captured.size(), 1u);
  EXPECT_EQ(captured[0].bytes, MakeFrame(2009, 6, true));
}

TEST_F(VethTest, HoldsTheSmallestFramesThereAreRingsFor) {
  Ip("link set left mtu 423");
  Port* port = OpenLeft(",framesz=512");
  ASSERT_NE(port, nullptr);
  EXPECT_EQ(port->mtu(), 423);
  const Receiver receiver = Receive(port);
  RawSocket right("right");
  ASSERT_TRUE(right.Send(MakeFrame(437, 6)));
  const auto captured = Pull(receiver);
  ASSERT_EQ(captured.size(), 1u);
  EXPECT_EQ(captured[0].bytes, MakeFrame(437, 6));
  EXPECT_THAT(Failure({.device = "net_af_packet1,iface=left,framesz=511"}),
              HasSubstr("framesz=511: must be 512 to 2080"));
}

TEST_F(VethTest, RefusesRingsBeyondThePacketBuffer) {
  EXPECT_THAT(Failure({.device = "net_af_packet0,iface=left,framesz=2096"}),
              HasSubstr("framesz=2096: must be 512 to 2080"));
}

TEST_F(VethTest, SetsTheMtuWhenAskedTo) {
  Port* port =
      Open("left", {.device = "net_af_packet0,iface=left", .mtu = 1400});
  ASSERT_NE(port, nullptr);
  EXPECT_EQ(port->mtu(), 1400);
  const Sender sender = Send(port);
  Push(sender, MakeFrame(1414));
  Push(sender, MakeFrame(1415));
  EXPECT_EQ(port->stats().tx_packets, 1u);
  EXPECT_EQ(port->stats().drop(DropCause::kTxTooLong), 1u);
  Ip("link set left mtu 1500");
  port->Refresh();
  EXPECT_EQ(port->mtu(), 1500);
}

TEST_F(VethTest, SaysWhyTheMtuCannotBeSet) {
  bess::PortOptions options = {.device = "net_af_packet0,iface=left",
                               .mtu = 1400};
  refuses_mtus = true;
  EXPECT_EQ(Failure(options),
            "port 'p', device 'net_af_packet0,iface=left': the MTU of "
            "interface left cannot be set to 1400: Operation not permitted");
  options.mtu = 0;
  EXPECT_EQ(Failure(options), "") << "the interface's own is as it is";
  refuses_mtus = false;
}

}  // namespace
