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

// One a process. Clients that connect before `serve` wait for it.
class ControlServer {
 public:
  // Takes the sockets. Throws StartError.
  explicit ControlServer(const SwitchConfig& config);
  // Stops.
  ~ControlServer();
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

  // Once. Answers what clients ask about `live`. Throws StartError.
  void serve(LiveSwitch* live);

  // Removes the socket, ends all calls and waits for those that are changing
  // something.
  void stop();

  // The TCP port; 0 without one.
  uint16_t tcpPort() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace ofswitch
