// SPDX-License-Identifier: BSD-3-Clause
#include "switch/client/probe.h"

#include <fmt/format.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string_view>
#include <system_error>

namespace ofswitch {
namespace {

constexpr int kPatienceMs = 5000;
constexpr char kStart[] = "start one with \"ofswitch run -c switch.yaml\"";

// The resolver would take any number, and cut it to 16 bits.
bool isPort(std::string_view text) {
  uint16_t port = 0;
  const char* end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, port);
  return error == std::errc() && rest == end && port != 0;
}

// 0, or the error of one attempt.
int tryConnect(int family, const sockaddr* address, socklen_t size) {
  const int fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return errno;
  int error = connect(fd, address, size) == 0 ? 0 : errno;
  if (error == EINPROGRESS) {
    pollfd ready{fd, POLLOUT, 0};
    socklen_t length = sizeof(error);
    if (poll(&ready, 1, kPatienceMs) != 1) {
      error = ETIMEDOUT;
    } else if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) {
      error = errno;
    }
  }
  close(fd);
  return error;
}

}  // namespace

std::string probeUnixSocket(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) {
    return fmt::format("the path has {} characters, at most {} are possible",
                       path.size(), sizeof(address.sun_path) - 1);
  }
  std::memcpy(address.sun_path, path.c_str(), path.size());
  std::error_code ignored;
  switch (const int error =
              tryConnect(AF_UNIX, reinterpret_cast<const sockaddr*>(&address),
                         sizeof(address))) {
    case 0:
    case EAGAIN:  // there is one, and many want to speak to it
      return {};
    case ENOENT:
      return fmt::format(
          "does not exist: no switch runs there; {}, or say --socket PATH",
          kStart);
    case ECONNREFUSED:
      if (!std::filesystem::is_socket(path, ignored)) {
        return "is no socket; say --socket PATH, which is control.socket in "
               "the switch's configuration";
      }
      return fmt::format("nothing listens: the switch that made it is gone; {}",
                         kStart);
    case EACCES:
    case EPERM:
      return "permission denied: only the user who runs the switch can use "
             "it; use sudo";
    default:
      return std::strerror(error);
  }
}

std::string probeAddress(const std::string& address) {
  const size_t colon = address.rfind(':');
  if (colon == std::string::npos || colon == 0 ||
      !isPort(std::string_view(address).substr(colon + 1))) {
    return "must be HOST:PORT, e.g. 127.0.0.1:9470 or [::1]:9470";
  }
  std::string host = address.substr(0, colon);
  if (host.starts_with('[') && host.ends_with(']')) {
    host = host.substr(1, host.size() - 2);
  }
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int failure = getaddrinfo(
      host.c_str(), address.substr(colon + 1).c_str(), &hints, &found);
  if (failure != 0) return gai_strerror(failure);
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> all(found,
                                                               freeaddrinfo);
  int error = 0;
  for (const addrinfo* one = found; one != nullptr; one = one->ai_next) {
    error = tryConnect(one->ai_family, one->ai_addr, one->ai_addrlen);
    if (error == 0) return {};
  }
  if (error == ECONNREFUSED) {
    return "nothing listens there; a switch does when its configuration says "
           "control: {address: " +
           address + "}";
  }
  return std::strerror(error);
}

}  // namespace ofswitch
