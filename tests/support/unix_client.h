// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

namespace openflow_test {

// Connected to the socket at a path until it is destroyed.
class UnixClient {
 public:
  explicit UnixClient(const std::string& path)
      : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    EXPECT_EQ(
        connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0)
        << path << ": " << strerror(errno);
  }
  ~UnixClient() {
    if (fd_ >= 0) close(fd_);
  }
  UnixClient(UnixClient&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UnixClient& operator=(UnixClient&&) = delete;

  int fd() const { return fd_; }

  // Whether the other side says something, or hangs up, within the time.
  bool hears(int milliseconds) const {
    pollfd polled = {fd_, POLLIN, 0};
    return poll(&polled, 1, milliseconds) == 1;
  }

  // Whether the other side hangs up within the time, having read all that it
  // was told. Reads a byte.
  bool isClosed(int milliseconds) const {
    char byte = 0;
    return hears(milliseconds) && read(fd_, &byte, 1) == 0;
  }

  // Whether all of it was taken: a part may meet a closed connection.
  bool say(const std::string& bytes) const {
    return send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
  }

 private:
  int fd_;
};

}  // namespace openflow_test
