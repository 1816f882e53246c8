// SPDX-License-Identifier: BSD-3-Clause
//
// The control door of a running switch: gRPC on a unix socket and, when asked
// for, on a TCP port. Without TLS that is one of this machine alone; from
// elsewhere come only clients with a certificate.
#pragma once

#include <cstdint>
#include <memory>

#include "switch/live/config.h"
#include "switch/live/live_switch.h"

namespace ofswitch {

// Throws StartError for a control address that must not or cannot be served.
// Nothing is opened.
void checkControlAddress(const SwitchConfig& config);

// Where the door will be. Taken before anything else is started, so that a
// second switch goes before it has touched a port; clients that come early
// wait.
class ControlSockets {
 public:
  // Throws StartError.
  explicit ControlSockets(const SwitchConfig& config);
  ControlSockets(ControlSockets&&) noexcept;
  // Removes them.
  ~ControlSockets();

 private:
  friend class ControlServer;
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// The door, open as long as it exists. One a process.
class ControlServer {
 public:
  // Answers what clients ask about `live`, which must outlive it. Throws
  // StartError.
  ControlServer(ControlSockets sockets, LiveSwitch* live);
  // Stops.
  ~ControlServer();
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

  // Removes the sockets, ends all calls and waits for those that are changing
  // something.
  void stop();

  // The TCP port; 0 without one.
  uint16_t tcpPort() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace ofswitch
