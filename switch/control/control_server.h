// SPDX-License-Identifier: BSD-3-Clause
//
// The control door of a running switch: gRPC on a unix socket.
#pragma once

#include <memory>

#include "switch/live/config.h"
#include "switch/live/live_switch.h"

namespace ofswitch {

// One a process. Clients that connect before `serve` wait for it.
class ControlServer {
 public:
  // Takes the socket. Throws StartError.
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

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace ofswitch
