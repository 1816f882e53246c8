// SPDX-License-Identifier: BSD-3-Clause
//
// How many connections a control door takes when the system does not say how
// many descriptors there are.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cerrno>
#include <string>
#include <vector>

#include "switch/control/control_server.h"
#include "tests/captures/capture_files.h"
#include "tests/support/unix_client.h"
#include "tests/switch/live_bench.h"

namespace {

thread_local bool refuseLimits = false;

}  // namespace

extern "C" {

// What the linker puts in the place of the door's getrlimit. Not of
// everybody's: sanitizers ask for limits before there is anything else.
int __real_getrlimit(decltype(RLIMIT_NOFILE) resource, rlimit* limit);
int __wrap_getrlimit(decltype(RLIMIT_NOFILE) resource, rlimit* limit) {
  if (!refuseLimits) return __real_getrlimit(resource, limit);
  errno = EPERM;
  return -1;
}
}

namespace ofswitch {
namespace {

using namespace std::string_literals;
using openflow_test::UnixClient;

// While it lives, this thread cannot ask for limits.
class NoLimits {
 public:
  NoLimits() { refuseLimits = true; }
  ~NoLimits() { refuseLimits = false; }
  NoLimits(const NoLimits&) = delete;
  NoLimits& operator=(const NoLimits&) = delete;
};

rlimit descriptors() {
  rlimit limit{};
  EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  return limit;
}

TEST(ConnectionLimit, IsModestWhenTheSystemDoesNotTellIts) {
  LiveBench bench({});
  const openflow_test::ScratchDir dir;
  SwitchConfig config = bench->config();
  config.controlSocket = dir / "control.sock";
  const rlimit before = descriptors();
  ASSERT_GT(before.rlim_cur, 1100u) << "both ends of them are here";
  const auto open = [&] {
    const NoLimits none;
    return ControlServer(ControlSockets(config), &bench.live());
  };
  const ControlServer door = open();
  EXPECT_EQ(descriptors().rlim_cur, before.rlim_cur);
  EXPECT_EQ(descriptors().rlim_max, before.rlim_max);

  // Who says nothing is not kept for long.
  const auto greeting = "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n"s +
                        std::string("\0\0\0\4\0\0\0\0\0", 9);
  std::vector<UnixClient> clients;
  while (clients.size() < 512) {
    clients.emplace_back(config.controlSocket);
    ASSERT_TRUE(clients.back().say(greeting)) << clients.size();
    ASSERT_TRUE(clients.back().hears(20'000)) << clients.size();
    ASSERT_FALSE(clients.back().isClosed(0)) << clients.size();
  }
  EXPECT_TRUE(UnixClient(config.controlSocket).isClosed(20'000));
}

}  // namespace
}  // namespace ofswitch
