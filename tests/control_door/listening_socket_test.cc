// SPDX-License-Identifier: BSD-3-Clause
//
// What is listened at, whoever comes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "switch/control/control_socket.h"
#include "switch/control/tcp_address.h"
#include "tests/captures/capture_files.h"
#include "tests/support/time_limit.h"

namespace ofswitch {
namespace {

using openflow_test::ScratchDir;

ListeningSocket atAddress(const std::string& text) {
  return ListeningSocket::atAddress(text, TcpAddress(text, "key"), "key");
}

sockaddr_un unixAddress(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, path.c_str());
  return address;
}

// Whether so many clients are let in while nobody takes them.
bool hasRoomFor(size_t count, const sockaddr* address, socklen_t size) {
  std::vector<int> clients;
  bool isIn = true;
  while (isIn && clients.size() < count) {
    const int fd = socket(address->sa_family, SOCK_STREAM | SOCK_NONBLOCK, 0);
    clients.push_back(fd);
    if (connect(fd, address, size) == 0) continue;
    pollfd polled = {fd, POLLOUT, 0};
    isIn = errno == EINPROGRESS && poll(&polled, 1, 2000) == 1 &&
           (polled.revents & POLLERR) == 0;
  }
  for (const int fd : clients) close(fd);
  return isIn;
}

// Who asks it for a client that has gone again must not hang.
TEST(ListeningSocket, NeverBlocksAndIsNotInherited) {
  const ScratchDir dir;
  const ListeningSocket local = ListeningSocket::atPath(dir / "one.sock");
  const ListeningSocket tcp = atAddress("127.0.0.1:0");
  for (const ListeningSocket* socket : {&local, &tcp}) {
    EXPECT_NE(fcntl(socket->fd(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(fcntl(socket->fd(), F_GETFD) & FD_CLOEXEC, 0);
  }
  EXPECT_TRUE(local.isUnix());
  EXPECT_FALSE(tcp.isUnix());
}

// Why nobody can connect; 0 if somebody can.
int connectError(const sockaddr* address, socklen_t size) {
  const int fd = socket(address->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int error = connect(fd, address, size) == 0 ? 0 : errno;
  close(fd);
  return error;
}

TEST(ListeningSocket, ListensNoLongerThanItLives) {
  const ScratchDir dir;
  const std::string other = dir / "other.sock";
  const sockaddr_un address = unixAddress(other);
  const auto* where = reinterpret_cast<const sockaddr*>(&address);
  uint16_t port = 0;
  const auto tcpError = [&port] {
    const TcpAddress there("127.0.0.1:" + std::to_string(port), "key");
    return connectError(there.data(), there.size());
  };
  {
    const ListeningSocket local = ListeningSocket::atPath(dir / "one.sock");
    // A name that it knows nothing of.
    ASSERT_EQ(link((dir / "one.sock").c_str(), other.c_str()), 0);
    EXPECT_EQ(connectError(where, sizeof(address)), 0);
    const ListeningSocket tcp = atAddress("127.0.0.1:0");
    port = tcp.port();
    EXPECT_EQ(tcpError(), 0);
  }
  EXPECT_EQ(connectError(where, sizeof(address)), ECONNREFUSED);
  EXPECT_EQ(tcpError(), ECONNREFUSED);
}

// Others may start switches with sockets beside it.
TEST(ListeningSocket, LeavesItsFolderUnlocked) {
  const ScratchDir dir;
  const ListeningSocket first = ListeningSocket::atPath(dir / "one.sock");
  const auto start = std::chrono::steady_clock::now();
  const ListeningSocket second = ListeningSocket::atPath(dir / "two.sock");
  EXPECT_GE(second.fd(), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start,
            openflow_test::timeLimit(std::chrono::seconds(1)));
}

TEST(ListeningSocket, RemovesItsPathOnceWhoeverHasIt) {
  const ScratchDir dir;
  const std::string path = dir / "one.sock";
  {
    ListeningSocket first = ListeningSocket::atPath(path);
    const int fd = first.fd();
    ListeningSocket second = std::move(first);
    EXPECT_EQ(second.fd(), fd);
    {
      const ListeningSocket none = std::move(first);
      EXPECT_LT(none.fd(), 0);
    }
    EXPECT_TRUE(std::filesystem::exists(path));
    ListeningSocket third;
    third = std::move(second);
    EXPECT_EQ(third.fd(), fd);
    EXPECT_TRUE(third.isUnix());
  }
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(ListeningSocket, MayBeInTheCurrentFolder) {
  const ScratchDir dir;
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(std::filesystem::path(dir / "x").parent_path());
  {
    const ListeningSocket socket = ListeningSocket::atPath("one.sock");
    EXPECT_TRUE(std::filesystem::is_socket(dir / "one.sock"));
  }
  EXPECT_FALSE(std::filesystem::exists(dir / "one.sock"));
  std::filesystem::current_path(before);
}

// Whoever has it for itself has it, shared or not; it is waited for, and not
// for longer.
TEST(ListeningSocket, WaitsForItsFolderAndNoLonger) {
  const ScratchDir dir;
  const std::string path = dir / "one.sock";
  const int lock =
      open(path.substr(0, path.rfind('/')).c_str(), O_RDONLY | O_DIRECTORY);
  ASSERT_EQ(flock(lock, LOCK_SH), 0);
  std::thread other([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_FALSE(std::filesystem::exists(path));
    close(lock);
  });
  const auto start = std::chrono::steady_clock::now();
  const ListeningSocket socket = ListeningSocket::atPath(path);
  EXPECT_GE(socket.fd(), 0);
  other.join();
  EXPECT_LT(std::chrono::steady_clock::now() - start,
            openflow_test::timeLimit(std::chrono::seconds(2)));
}

// As many as come while the thread that takes them is at something else.
TEST(ListeningSocket, LetsManyWaitAtOnce) {
  const ScratchDir dir;
  const std::string path = dir / "one.sock";
  const ListeningSocket local = ListeningSocket::atPath(path);
  const sockaddr_un address = unixAddress(path);
  EXPECT_TRUE(hasRoomFor(100, reinterpret_cast<const sockaddr*>(&address),
                         sizeof(address)));
  const ListeningSocket tcp = atAddress("127.0.0.1:0");
  const TcpAddress there("127.0.0.1:" + std::to_string(tcp.port()), "key");
  EXPECT_TRUE(hasRoomFor(100, there.data(), there.size()));
}

TEST(TcpAddress, IsWhatItsTextSays) {
  const TcpAddress v4("localhost:9470", "key");
  EXPECT_EQ(v4.family(), AF_INET);
  ASSERT_EQ(v4.size(), sizeof(sockaddr_in));
  const auto* four = reinterpret_cast<const sockaddr_in*>(v4.data());
  EXPECT_EQ(ntohs(four->sin_port), 9470);
  EXPECT_EQ(ntohl(four->sin_addr.s_addr), INADDR_LOOPBACK);
  const TcpAddress v6("[2001:db8::7]:65535", "key");
  EXPECT_EQ(v6.family(), AF_INET6);
  ASSERT_EQ(v6.size(), sizeof(sockaddr_in6));
  const auto* six = reinterpret_cast<const sockaddr_in6*>(v6.data());
  EXPECT_EQ(ntohs(six->sin6_port), 65535);
  EXPECT_EQ(six->sin6_addr.s6_addr[0], 0x20);
  EXPECT_EQ(six->sin6_addr.s6_addr[15], 7);
}

}  // namespace
}  // namespace ofswitch
