// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <string>

namespace ofswitch {

// Where to listen, as "127.0.0.1:9470" or "[::1]:9470".
class TcpAddress {
 public:
  // Throws StartError, with `key` in front.
  TcpAddress(const std::string& text, const std::string& key);

  // Whether only this machine can reach it.
  bool isLoopback() const;

  int family() const { return address_.ss_family; }
  const sockaddr* data() const {
    return reinterpret_cast<const sockaddr*>(&address_);
  }
  socklen_t size() const {
    return family() == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
  }

 private:
  sockaddr_storage address_{};
};

}  // namespace ofswitch
