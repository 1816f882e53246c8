// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <string>

namespace ofswitch {

// In place of a service manager, which NOTIFY_SOCKET names. A path that begins
// with "@" is not in the file system.
class NotifySocket {
 public:
  explicit NotifySocket(const std::string& path)
      : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
    EXPECT_LT(path.size(), sizeof(address.sun_path));
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    if (path[0] == '@') address.sun_path[0] = '\0';
    const auto length =
        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&address), length), 0);
    const timeval patience = {.tv_sec = 20, .tv_usec = 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
  }
  ~NotifySocket() { close(fd_); }
  NotifySocket(const NotifySocket&) = delete;
  NotifySocket& operator=(const NotifySocket&) = delete;

  // The next thing it is told; nothing after 20 s.
  std::string told() const {
    char text[64];
    const ssize_t length = recv(fd_, text, sizeof(text), 0);
    return {text, length < 0 ? 0 : static_cast<size_t>(length)};
  }

 private:
  int fd_;
};

}  // namespace ofswitch
