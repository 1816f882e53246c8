// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ofswitch {

// Where a server listens for TCP connections, over IPv4.
struct ListenAddress {
  std::string host;  // numeric
  uint16_t port = 0;

  // Whether only this machine can reach it.
  bool loopback() const;
  // "127.0.0.1:9469"
  std::string text() const;
  sockaddr_in socketAddress() const;
};

// Takes what text() writes, and "localhost" for the host; nothing else.
std::optional<ListenAddress> parseListenAddress(std::string_view text);

}  // namespace ofswitch
