// SPDX-License-Identifier: BSD-3-Clause
#include "switch/live/listen_address.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <charconv>

namespace ofswitch {

bool ListenAddress::loopback() const {
  return ntohl(socketAddress().sin_addr.s_addr) >> 24 == IN_LOOPBACKNET;
}

std::string ListenAddress::text() const {
  return fmt::format("{}:{}", host, port);
}

sockaddr_in ListenAddress::socketAddress() const {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  inet_pton(AF_INET, host.c_str(), &address.sin_addr);
  return address;
}

std::optional<ListenAddress> parseListenAddress(std::string_view text) {
  const size_t colon = text.rfind(':');
  if (colon == std::string_view::npos) return std::nullopt;
  const std::string_view host = text.substr(0, colon);
  const std::string_view port = text.substr(colon + 1);

  ListenAddress address;
  const char* end = port.data() + port.size();
  const auto [stop, error] = std::from_chars(port.data(), end, address.port);
  if (error != std::errc() || stop != end) return std::nullopt;

  address.host = host == "localhost" ? "127.0.0.1" : host;
  in_addr bytes;
  if (inet_pton(AF_INET, address.host.c_str(), &bytes) != 1) {
    return std::nullopt;
  }
  return address;
}

}  // namespace ofswitch
