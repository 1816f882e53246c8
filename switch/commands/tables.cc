// SPDX-License-Identifier: BSD-3-Clause
//
// ofswitch tables: the tables of a running switch.
#include <fmt/core.h>

#include <memory>

#include "switch/client/message_json.h"
#include "switch/client/reports.h"
#include "switch/client/switch_client.h"
#include "switch/commands/client_options.h"
#include "switch/commands/commands.h"

namespace ofswitch {
namespace {

struct TablesOptions : ClientOptions {
  bool all = false;
};

int tables(const TablesOptions& options) {
  pb::TablesRequest request;
  request.set_all(options.all);
  SwitchClient client(options.door);
  const auto reply = client.call(&SwitchClient::Stub::GetTables, request);
  if (options.json) {
    fmt::print("{}\n", jsonText(messageJson(reply)["tables"]));
  } else {
    fmt::print("{}", tablesText(reply));
  }
  return 0;
}

}  // namespace

void addTablesCommand(CLI::App* app, int* status) {
  CLI::App* command = app->add_subcommand(
      "tables", "Tables of a running switch: flows, packets, drops, builds");
  command->footer(
      "A rule is what the module holds: a flow, or a guard of one.\n"
      "Examples:\n"
      "  ofswitch tables\n"
      "  ofswitch tables --json | jq '.[] | {table, flows, entered}'");
  auto options = std::make_shared<TablesOptions>();
  command->add_flag("--all", options->all,
                    "Also tables that have no flow and have seen no packet");
  addClientOptions(command, options.get(), "Print an array of tables");
  command->callback([options, status] { *status = tables(*options); });
}

}  // namespace ofswitch
