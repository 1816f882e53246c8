// SPDX-License-Identifier: BSD-3-Clause
//
// ofswitch ports: the ports of a running switch.
#include <fmt/core.h>

#include <memory>

#include "switch/client/message_json.h"
#include "switch/client/reports.h"
#include "switch/client/switch_client.h"
#include "switch/commands/client_options.h"
#include "switch/commands/commands.h"

namespace ofswitch {
namespace {

int ports(const ClientOptions& options) {
  SwitchClient client(options.door);
  const auto reply =
      client.call(&SwitchClient::Stub::GetPorts, pb::PortsRequest());
  if (options.json) {
    fmt::print("{}\n", jsonText(messageJson(reply)["ports"]));
  } else {
    fmt::print("{}", portsText(reply));
  }
  return 0;
}

}  // namespace

void addPortsCommand(CLI::App* app, int* status) {
  CLI::App* command = app->add_subcommand(
      "ports", "Ports of a running switch: links, packets, drops");
  command->footer(
      "Port 0 is the controller's.\n"
      "Examples:\n"
      "  ofswitch ports\n"
      "  ofswitch ports --json | jq '.[] | select(.linkUp | not).name'");
  auto options = std::make_shared<ClientOptions>();
  addClientOptions(command, options.get(), "Print an array of ports");
  command->callback([options, status] { *status = ports(*options); });
}

}  // namespace ofswitch
