// SPDX-License-Identifier: BSD-3-Clause
#include "switch/commands/service_notice.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "tests/captures/capture_files.h"
#include "tests/switch/notify_socket.h"

namespace {

thread_local bool refuseSockets = false;

}  // namespace

// The program's own version of the system's function.
extern "C" int socket(int family, int type, int protocol) noexcept {
  using Socket = decltype(&socket);
  static const auto real = reinterpret_cast<Socket>(dlsym(RTLD_NEXT, "socket"));
  if (!refuseSockets) return real(family, type, protocol);
  errno = EMFILE;
  return -1;
}

namespace ofswitch {
namespace {

// It is not worth more than that.
TEST(ServiceNotice, IsNotGivenWithoutASocket) {
  const openflow_test::ScratchDir dir;
  const std::string path = dir / "notify";
  const NotifySocket manager(path);
  setenv("NOTIFY_SOCKET", path.c_str(), 1);
  refuseSockets = true;
  errno = 0;
  tellServiceManager("READY=1");
  EXPECT_EQ(errno, EMFILE) << "something else was tried";
  refuseSockets = false;
  tellServiceManager("STOPPING=1");
  unsetenv("NOTIFY_SOCKET");
  EXPECT_EQ(manager.told(), "STOPPING=1");
}

}  // namespace
}  // namespace ofswitch
