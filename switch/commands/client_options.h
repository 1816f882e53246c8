// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "switch/client/door_options.h"

namespace ofswitch {

// What every command can be told that asks a running switch.
struct ClientOptions {
  DoorOptions door = {};
  bool json = false;
};

// Adds --json and where the switch is. Last, as they are less often wanted than
// what the command has of its own.
inline void addClientOptions(CLI::App* command, ClientOptions* options,
                             const std::string& jsonHelp) {
  command->add_flag("--json", options->json, jsonHelp);
  addDoorOptions(command, &options->door);
}

}  // namespace ofswitch
