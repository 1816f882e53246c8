// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "switch/control/tcp_address.h"

namespace ofswitch {

// A socket that listens, and a name for it in the file system if it has one.
class ListeningSocket {
 public:
  ListeningSocket() = default;
  ListeningSocket(ListeningSocket&& other) noexcept;
  ListeningSocket& operator=(ListeningSocket&& other) noexcept;
  // Closes it and removes its name, unless somebody else has taken it over.
  ~ListeningSocket();

  int fd() const { return fd_; }
  bool isUnix() const { return !path_.empty(); }

  // A unix socket that only the owner of the process can use, from the first
  // moment on. Its folder is made if it is missing; what a switch that is gone
  // has left there is replaced, and one that runs is refused. Throws
  // StartError.
  static ListeningSocket atPath(const std::string& path);

  // A TCP socket; `key` stands in errors. Throws StartError.
  static ListeningSocket atAddress(const std::string& text,
                                   const TcpAddress& address,
                                   const std::string& key);

  // Of a TCP socket.
  uint16_t port() const;

 private:
  int fd_ = -1;
  std::string path_;
  dev_t device_ = 0;  // of the name
  ino_t inode_ = 0;
};

}  // namespace ofswitch
