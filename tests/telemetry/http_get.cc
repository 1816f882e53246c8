// SPDX-License-Identifier: BSD-3-Clause
#include "tests/telemetry/http_get.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace ofswitch {
namespace {

class Connection {
 public:
  explicit Connection(uint16_t port)
      : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const timeval patience = {.tv_sec = 10, .tv_usec = 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) !=
        0) {
      const std::string reason = std::strerror(errno);
      close(fd_);
      throw std::runtime_error("connect: " + reason);
    }
  }
  ~Connection() { close(fd_); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void send(const std::string& bytes) const {
    if (::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(bytes.size())) {
      throw std::runtime_error(std::string("send: ") + std::strerror(errno));
    }
  }

  // All that comes until the server closes.
  std::string receive() const {
    std::string all;
    char buffer[65536];
    ssize_t length = 0;
    while ((length = recv(fd_, buffer, sizeof(buffer), 0)) > 0) {
      all.append(buffer, static_cast<size_t>(length));
    }
    if (length < 0) {
      throw std::runtime_error(std::string("recv: ") + std::strerror(errno));
    }
    return all;
  }

  // Closing sends a reset.
  void linger() const {
    const ::linger now = {.l_onoff = 1, .l_linger = 0};
    setsockopt(fd_, SOL_SOCKET, SO_LINGER, &now, sizeof(now));
  }

 private:
  int fd_;
};

}  // namespace

HttpAnswer httpRequest(uint16_t port, const std::string& method,
                       const std::string& path) {
  const Connection connection(port);
  connection.send(method + " " + path +
                  " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n"
                  "Content-Length: 0\r\n\r\n");
  const std::string all = connection.receive();
  const size_t end = all.find("\r\n\r\n");
  if (!all.starts_with("HTTP/1.1 ") || end == std::string::npos) {
    throw std::runtime_error("no HTTP answer: " + all);
  }
  return {std::stoi(all.substr(9, 3)), all.substr(0, end + 2),
          all.substr(end + 4)};
}

uint16_t portOfUrl(const std::string& url) {
  const size_t colon = url.rfind(':');
  return static_cast<uint16_t>(std::stoi(url.substr(colon + 1)));
}

void sendAndReset(uint16_t port, const std::string& bytes) {
  const Connection connection(port);
  connection.send(bytes);
  connection.linger();
}

}  // namespace ofswitch
