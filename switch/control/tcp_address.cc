// SPDX-License-Identifier: BSD-3-Clause
#include "switch/control/tcp_address.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <charconv>
#include <cstdint>
#include <optional>

#include "switch/live/live_switch.h"

namespace ofswitch {
namespace {

std::optional<uint16_t> portNumber(const std::string& text) {
  uint16_t port = 0;
  const char* end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, port);
  if (error != std::errc() || rest != end) return std::nullopt;
  return port;
}

}  // namespace

TcpAddress::TcpAddress(const std::string& text, const std::string& key) {
  const size_t colon = text.rfind(':');
  std::string host = text.substr(0, colon);
  if (host == "localhost") host = "127.0.0.1";
  std::optional<uint16_t> port;
  if (colon != std::string::npos) port = portNumber(text.substr(colon + 1));
  auto* v4 = reinterpret_cast<sockaddr_in*>(&address_);
  auto* v6 = reinterpret_cast<sockaddr_in6*>(&address_);
  if (port && inet_pton(AF_INET, host.c_str(), &v4->sin_addr) == 1) {
    v4->sin_family = AF_INET;
    v4->sin_port = htons(*port);
    return;
  }
  const bool inBrackets =
      host.size() > 2 && host.front() == '[' && host.back() == ']';
  if (port && inBrackets &&
      inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(),
                &v6->sin6_addr) == 1) {
    v6->sin6_family = AF_INET6;
    v6->sin6_port = htons(*port);
    return;
  }
  throw StartError(
      fmt::format("{}: \"{}\" is no address and port, such as 127.0.0.1:9470 "
                  "or [::1]:9470",
                  key, text));
}

bool TcpAddress::isLoopback() const {
  if (family() == AF_INET) {
    const auto* v4 = reinterpret_cast<const sockaddr_in*>(&address_);
    return ntohl(v4->sin_addr.s_addr) >> 24 == 127;
  }
  const auto* v6 = reinterpret_cast<const sockaddr_in6*>(&address_);
  return IN6_IS_ADDR_LOOPBACK(&v6->sin6_addr) ||
         (IN6_IS_ADDR_V4MAPPED(&v6->sin6_addr) &&
          v6->sin6_addr.s6_addr[12] == 127);
}

}  // namespace ofswitch
