// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>

#include "switch/control/control_server.h"
#include "tests/captures/capture_files.h"

namespace ofswitch {

// Why a switch would not start.
inline std::string errorOf(const std::function<void()>& fn) {
  try {
    fn();
  } catch (const StartError& error) {
    return error.what();
  }
  return "";
}

inline sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, path.c_str());
  return address;
}

inline int bindSocket(const std::string& path, int type = SOCK_STREAM) {
  const int fd = socket(AF_UNIX, type, 0);
  const sockaddr_un address = addressOf(path);
  EXPECT_EQ(
      bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)),
      0);
  return fd;
}

// What a killed process leaves behind.
inline void leaveSocket(const std::string& path) { close(bindSocket(path)); }

// Closing it unlocks.
inline int lockedFolder(const openflow_test::ScratchDir& dir) {
  const int fd = open((dir / "").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  EXPECT_EQ(flock(fd, LOCK_EX), 0);
  return fd;
}

}  // namespace ofswitch
