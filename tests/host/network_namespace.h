// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <net/if.h>
#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

// Puts the process into a network namespace of its own, in which it is root,
// before it has any threads. Answers why it cannot, empty on success.
std::string EnterNetworkNamespace();

// Runs "ip ARGS" and fails the test when that fails.
void Ip(const std::string& args);

// A second network namespace, as long as it lives, for interfaces to move to.
class OtherNamespace {
 public:
  OtherNamespace();
  ~OtherNamespace();
  OtherNamespace(const OtherNamespace&) = delete;
  OtherNamespace& operator=(const OtherNamespace&) = delete;

  // The process in it, by which "ip" finds it.
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_;
};

// Packets that an interface has received, as the kernel counts them.
uint64_t ReceivedBy(const std::string& interface);

// The other end of a cable: a packet socket.
class RawSocket {
 public:
  explicit RawSocket(const std::string& interface);
  ~RawSocket();
  RawSocket(const RawSocket&) = delete;
  RawSocket& operator=(const RawSocket&) = delete;

  // False when the kernel does not take it.
  bool Send(const std::string& frame);

  // An IPv4 TCP packet of `len` bytes that the kernel is to cut into frames.
  bool SendUncut(size_t len);

  // The next frame, with its tag; none when none comes within 200 ms.
  std::optional<std::string> Receive();

 private:
  int fd_;
};
