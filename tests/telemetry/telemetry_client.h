// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>

#include "eal.h"

namespace ofswitch {

// Speaks to this process's telemetry socket as dpdk-telemetry.py does.
class TelemetryClient {
 public:
  TelemetryClient() : fd_(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
    const timeval patience = {.tv_sec = 10, .tv_usec = 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::string path = bess::RuntimeDir() + "/dpdk_telemetry.v2";
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    EXPECT_EQ(connect(fd_, reinterpret_cast<const sockaddr*>(&address),
                      sizeof(address)),
              0)
        << path << ": " << std::strerror(errno);
    const nlohmann::json hello = nlohmann::json::parse(receive());
    EXPECT_EQ(hello["pid"], getpid());
    EXPECT_EQ(hello["max_output_len"], 16384);
  }
  ~TelemetryClient() { close(fd_); }
  TelemetryClient(const TelemetryClient&) = delete;
  TelemetryClient& operator=(const TelemetryClient&) = delete;

  nlohmann::json ask(const std::string& command) const {
    EXPECT_EQ(send(fd_, command.data(), command.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(command.size()));
    const std::string answer = receive();
    EXPECT_LT(answer.size(), 16384);
    const nlohmann::json all = nlohmann::json::parse(answer);
    EXPECT_EQ(all.size(), 1);
    return all.begin().value();
  }

 private:
  std::string receive() const {
    std::string bytes(1 << 16, '\0');
    const ssize_t length = recv(fd_, bytes.data(), bytes.size(), 0);
    EXPECT_GT(length, 0) << std::strerror(errno);
    bytes.resize(static_cast<size_t>(std::max<ssize_t>(length, 0)));
    return bytes;
  }

  int fd_;
};

}  // namespace ofswitch
