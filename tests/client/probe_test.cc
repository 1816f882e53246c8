// SPDX-License-Identifier: BSD-3-Clause
#include "switch/client/probe.h"

#include <gtest/gtest.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <utility>

#include "tests/captures/capture_files.h"
#include "tests/support/listener.h"
#include "tests/support/next_definition.h"

namespace {

// On the thread that asks for it.
thread_local bool refuseSockets = false;
thread_local bool refuseOptions = false;
thread_local int askedPatience = -1;  // of poll(), in milliseconds
thread_local bool answerNothing = false;
thread_local bool beginConnections = false;
thread_local bool knowNoNames = false;
thread_local std::string askedName;  // of getaddrinfo(), and the port

using openflow_test::next;

}  // namespace

// The program's own versions of the system's functions.
extern "C" {

int socket(int family, int type, int protocol) noexcept {
  static auto* const real = next<decltype(socket)>("socket");
  if (!refuseSockets) return real(family, type, protocol);
  errno = EMFILE;
  return -1;
}

// As over a network: the connection is not there at once.
int connect(int fd, const sockaddr* address, socklen_t size) {
  static auto* const real = next<decltype(connect)>("connect");
  const int result = real(fd, address, size);
  if (!beginConnections) return result;
  errno = EINPROGRESS;
  return -1;
}

int poll(pollfd* fds, nfds_t count, int patience) {
  static auto* const real = next<decltype(poll)>("poll");
  askedPatience = patience;
  return answerNothing ? 0 : real(fds, count, patience);
}

int getsockopt(int fd, int level, int name, void* value,
               socklen_t* size) noexcept {
  static auto* const real = next<decltype(getsockopt)>("getsockopt");
  if (!refuseOptions) return real(fd, level, name, value, size);
  errno = ENOBUFS;
  return -1;
}

int getaddrinfo(const char* host, const char* port, const addrinfo* hints,
                addrinfo** found) {
  static auto* const real = next<decltype(getaddrinfo)>("getaddrinfo");
  if (!knowNoNames) return real(host, port, hints, found);
  askedName = std::string(host) + " " + port;
  return EAI_NONAME;
}
}

namespace ofswitch {
namespace {

using openflow_test::Listener;

TEST(Probe, FindsWhoListens) {
  const openflow_test::ScratchDir dir;
  const std::string path = dir / "door.sock";
  const Listener unixSocket = Listener::onPath(path);
  EXPECT_EQ(probeUnixSocket(path), "");
  const Listener loopback = Listener::onLoopback();
  EXPECT_EQ(probeAddress("127.0.0.1:" + loopback.port()), "");
  EXPECT_EQ(probeAddress("localhost:" + loopback.port()), "");
}

TEST(Probe, TellsThatNobodyListens) {
  std::string port;
  {
    const Listener listener = Listener::onLoopback();
    port = listener.port();
  }
  for (const std::string host : {"127.0.0.1", "[127.0.0.1]"}) {
    EXPECT_EQ(probeAddress(host + ":" + port),
              "nothing listens there; a switch does when its configuration "
              "says control: {address: " +
                  host + ":" + port + "}");
  }
  const openflow_test::ScratchDir dir;
  const std::string path = dir / "door.sock";
  { const Listener listener = Listener::onPath(path); }
  EXPECT_EQ(probeUnixSocket(path),
            "nothing listens: the switch that made it is gone; start one with "
            "\"ofswitch run -c switch.yaml\"");
  unlink(path.c_str());
  EXPECT_EQ(probeUnixSocket(path),
            "does not exist: no switch runs there; start one with \"ofswitch "
            "run -c switch.yaml\", or say --socket PATH");
}

TEST(Probe, TellsWhatIsNoAddress) {
  for (const char* address :
       {"", ":", "host", "127.0.0.1", ":80", "127.0.0.1:", "[::1]:",
        "127.0.0.1:0", "127.0.0.1:65536", "127.0.0.1:80x", "127.0.0.1:http"}) {
    EXPECT_EQ(probeAddress(address),
              "must be HOST:PORT, e.g. 127.0.0.1:9470 or [::1]:9470")
        << address;
  }
  // A broadcast address, which no stream can go to.
  EXPECT_EQ(probeAddress("255.255.255.255:80"), "Network is unreachable");
}

TEST(Probe, TellsThatNobodyKnowsAName) {
  knowNoNames = true;
  for (const auto& [address, asked] :
       {std::pair{"host.example:80", "host.example 80"},
        std::pair{"[host.example:80", "[host.example 80"},
        std::pair{"[2001:db8::1]:80", "2001:db8::1 80"}}) {
    EXPECT_EQ(probeAddress(address), "Name or service not known");
    EXPECT_EQ(askedName, asked);
  }
  knowNoNames = false;
}

TEST(Probe, TellsWhatTheSystemSays) {
  EXPECT_EQ(probeUnixSocket("/dev/null/door.sock"), "Not a directory");
  EXPECT_EQ(probeUnixSocket(std::string(107, 'x')),
            "does not exist: no switch runs there; start one with \"ofswitch "
            "run -c switch.yaml\", or say --socket PATH");
  EXPECT_EQ(probeUnixSocket(std::string(108, 'x')),
            "the path has 108 characters, at most 107 are possible");
}

TEST(Probe, TellsThatThereAreNoMoreDescriptors) {
  const Listener listener = Listener::onLoopback();
  refuseSockets = true;
  const std::string reason = probeAddress(listener.address());
  refuseSockets = false;
  EXPECT_EQ(reason, "Too many open files");
}

TEST(Probe, WaitsForAConnectionAndNotForGood) {
  const Listener listener = Listener::onLoopback();
  beginConnections = true;
  EXPECT_EQ(probeAddress(listener.address()), "");
  EXPECT_EQ(askedPatience, 5000);
  answerNothing = true;
  EXPECT_EQ(probeAddress(listener.address()), "Connection timed out");
  answerNothing = false;
  refuseOptions = true;
  EXPECT_EQ(probeAddress(listener.address()), "No buffer space available");
  refuseOptions = false;
  beginConnections = false;
}

// Of a socket that another user has made.
TEST(Probe, TellsThatItMayNot) {
  const openflow_test::ScratchDir dir;
  const std::string path = dir / "door.sock";
  const Listener listener = Listener::onPath(path);
  ASSERT_EQ(chmod(path.c_str(), 0), 0);
  const bool isRoot = geteuid() == 0;
  if (isRoot) {
    ASSERT_EQ(seteuid(65534), 0);
  }
  const std::string reason = probeUnixSocket(path);
  if (isRoot) {
    ASSERT_EQ(seteuid(0), 0);
  }
  EXPECT_EQ(reason,
            "permission denied: only the user who runs the switch can use it; "
            "use sudo");
}

}  // namespace
}  // namespace ofswitch
