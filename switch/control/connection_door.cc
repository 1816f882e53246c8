// SPDX-License-Identifier: BSD-3-Clause
#include "switch/control/connection_door.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <exception>
#include <system_error>
#include <utility>

namespace ofswitch {
namespace {

// The inode of an open socket; 0 for everything else.
unsigned long socketInode(int fd) {
  struct stat found {};
  const bool isSocket = fstat(fd, &found) == 0 && S_ISSOCK(found.st_mode);
  return isSocket ? found.st_ino : 0;
}

int makeEvent() {
  const int fd = eventfd(0, EFD_CLOEXEC);
  if (fd >= 0) return fd;
  throw std::system_error(errno, std::system_category(),
                          "the control door cannot open");
}

}  // namespace

ConnectionDoor::ConnectionDoor(std::vector<Entrance> entrances,
                               size_t mostConnections)
    : entrances_(std::move(entrances)),
      mostConnections_(mostConnections),
      stop_(makeEvent()),
      thread_([this] { serve(); }) {}

void ConnectionDoor::close() {
  if (!thread_.joinable()) return;
  const uint64_t one = 1;
  if (write(stop_, &one, sizeof(one)) < 0) std::terminate();
  thread_.join();
  ::close(stop_);
}

void ConnectionDoor::disconnect() {
  for (const Connection& connection : connections_) {
    // A descriptor of our own: gRPC may close this one at any moment, and
    // something else take its number.
    const int fd = fcntl(connection.fd, F_DUPFD_CLOEXEC, 0);
    if (fd < 0) continue;
    if (socketInode(fd) == connection.inode) shutdown(fd, SHUT_RDWR);
    ::close(fd);
  }
}

void ConnectionDoor::serve() {
  std::vector<pollfd> polled = {{stop_, POLLIN, 0}};
  for (const Entrance& entrance : entrances_) {
    polled.push_back({entrance.socket->fd(), POLLIN, 0});
  }
  while (true) {
    if (poll(polled.data(), polled.size(), -1) < 0) continue;
    if (polled[0].revents != 0) return;
    for (size_t i = 0; i < entrances_.size(); i++) {
      if (polled[i + 1].revents != 0) accept(entrances_[i]);
    }
  }
}

void ConnectionDoor::accept(const Entrance& entrance) {
  const int fd = accept4(entrance.socket->fd(), nullptr, nullptr,
                         SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (fd < 0) {
    if (errno == EMFILE || errno == ENFILE || errno == ENOMEM ||
        errno == ENOBUFS) {
      // Until somebody else closes something.
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return;
  }
  if (!hasRoom()) {
    ::close(fd);
    return;
  }
  if (!entrance.socket->isUnix()) {
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  }
  connections_.push_back({fd, socketInode(fd)});
  Acceptor::NewConnectionParameters connection;
  connection.fd = fd;
  entrance.acceptor->HandleNewConnection(&connection);
}

bool ConnectionDoor::hasRoom() {
  if (connections_.size() < mostConnections_) return true;
  std::erase_if(connections_, [](const Connection& connection) {
    return socketInode(connection.fd) != connection.inode;
  });
  return connections_.size() < mostConnections_;
}

}  // namespace ofswitch
