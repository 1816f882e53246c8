// SPDX-License-Identifier: BSD-3-Clause
//
// A kernel that does not let a packet socket choose.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>

#include "interface_fixture.h"

namespace {

bool refusesFilters = false;

}  // namespace

// In front of the system's, which has room for a filter of four steps.
extern "C" int setsockopt(int fd, int level, int name, const void* value,
                          socklen_t size) noexcept {
  static const auto real =
      reinterpret_cast<decltype(&setsockopt)>(dlsym(RTLD_NEXT, "setsockopt"));
  if (refusesFilters && level == SOL_SOCKET && name == SO_ATTACH_FILTER) {
    errno = ENOBUFS;
    return -1;
  }
  return real(fd, level, name, value, size);
}

namespace {

using PacketFilterTest = InterfaceTest;

// It would receive what its neighbours in this machine send.
TEST_F(PacketFilterTest, APortDoesNotOpenWithout) {
  Ip("link add left type veth peer name right");
  const bess::PortOptions options = {.device = "net_af_packet0,iface=left"};
  refusesFilters = true;
  EXPECT_EQ(Failure(options),
            "port 'p', device 'net_af_packet0,iface=left': what the kernel "
            "sends there cannot be told from what comes in: No buffer space "
            "available");
  refusesFilters = false;
  EXPECT_NE(Open("p", options), nullptr);
  EXPECT_EQ(bess::ClosePort("p"), "");
  Ip("link del left");
}

}  // namespace
