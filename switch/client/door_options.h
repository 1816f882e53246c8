// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace ofswitch {

// Where a running switch is reached.
struct DoorOptions {
  std::string socket = {};   // empty: OFSWITCH_SOCKET, or where "run" puts it
  std::string address = {};  // "host:port", instead of the socket
  // Files for an address: all of them or none.
  std::string tlsCa = {};
  std::string tlsCertificate = {};
  std::string tlsKey = {};
  // Seconds that a switch has to answer, for one that is still starting.
  double wait = 30;

  std::string socketPath() const;
};

// Adds --socket, --address, --wait and the --tls options to a command.
void addDoorOptions(CLI::App* command, DoorOptions* options);

}  // namespace ofswitch
