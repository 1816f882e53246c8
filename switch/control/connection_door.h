// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <grpcpp/grpcpp.h>

#include <cstddef>
#include <memory>
#include <thread>
#include <vector>

#include "switch/control/control_socket.h"

namespace ofswitch {

// Accepts connections and hands them to a gRPC server, so many at a time and
// no more. (Left to itself, gRPC accepts until the process has no descriptors
// left, and then never again.)
class ConnectionDoor {
 public:
  using Acceptor = grpc::experimental::ExternalConnectionAcceptor;

  struct Entrance {
    const ListeningSocket* socket;
    std::unique_ptr<Acceptor> acceptor;
  };

  // The sockets must outlive it; the server must run. Throws
  // std::system_error.
  ConnectionDoor(std::vector<Entrance> entrances, size_t mostConnections);
  ~ConnectionDoor() { close(); }
  ConnectionDoor(const ConnectionDoor&) = delete;
  ConnectionDoor& operator=(const ConnectionDoor&) = delete;

  // Accepts no more. Connections stay.
  void close();

  // Ends the connections that are left. After close().
  void disconnect();

 private:
  // A connection, known by its descriptor and the socket behind it, because
  // the descriptor is used anew once gRPC has closed it.
  struct Connection {
    int fd;
    unsigned long inode;
  };

  void serve();
  void accept(const Entrance& entrance);
  bool hasRoom();

  std::vector<Entrance> entrances_;
  const size_t mostConnections_;
  std::vector<Connection> connections_;
  int stop_;  // an eventfd
  std::thread thread_;
};

}  // namespace ofswitch
