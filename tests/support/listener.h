// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>

namespace openflow_test {

// A socket that listens until it is destroyed.
class Listener {
 public:
  // On 127.0.0.1, on a port that was free.
  static Listener onLoopback() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return {reinterpret_cast<sockaddr*>(&address), sizeof(address)};
  }

  static Listener onPath(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    return {reinterpret_cast<sockaddr*>(&address), sizeof(address)};
  }

  ~Listener() { close(fd_); }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  int fd() const { return fd_; }

  std::string port() const {
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    EXPECT_EQ(getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &size),
              0);
    EXPECT_EQ(address.sin_family, AF_INET);
    return std::to_string(ntohs(address.sin_port));
  }

  // "127.0.0.1:PORT"
  std::string address() const { return "127.0.0.1:" + port(); }

 private:
  Listener(const sockaddr* address, socklen_t size)
      : fd_(socket(address->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    EXPECT_EQ(bind(fd_, address, size), 0);
    EXPECT_EQ(listen(fd_, 8), 0);
  }

  int fd_;
};

}  // namespace openflow_test
