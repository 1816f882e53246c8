// SPDX-License-Identifier: BSD-3-Clause
//
// An address that can be had, for an HTTP server that does not start.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>

#include "switch/telemetry/metrics_server.h"
#include "tests/switch/live_bench.h"

namespace {

thread_local bool refuseToListen = false;
thread_local int refusals = 0;

}  // namespace

// The program's own version of the system's function.
extern "C" int listen(int fd, int backlog) noexcept {
  using Listen = decltype(&listen);
  static const auto real = reinterpret_cast<Listen>(dlsym(RTLD_NEXT, "listen"));
  if (!refuseToListen) return real(fd, backlog);
  refusals++;
  errno = EADDRINUSE;
  return -1;
}

namespace ofswitch {
namespace {

TEST(MetricsServer, SaysThatItDoesNotStartWhereItCouldListen) {
  LiveBench bench({});
  refuseToListen = true;
  try {
    const MetricsServer server(bench.live(), "127.0.0.1:0", 1);
    ADD_FAILURE() << "listens on " << server.url();
  } catch (const StartError& error) {
    EXPECT_STREQ(error.what(),
                 "metrics: cannot listen on 127.0.0.1:0: the HTTP server does "
                 "not start; give another address, such as \"metrics: "
                 "127.0.0.1:1\", or \"metrics: false\"");
  }
  refuseToListen = false;
  EXPECT_GT(refusals, 0);
}

}  // namespace
}  // namespace ofswitch
