// SPDX-License-Identifier: BSD-3-Clause
#include <fmt/core.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>

#include "switch/commands/commands.h"

int main(int argc, char** argv) {
  CLI::App app(
      "Packets through OpenFlow tables: check flows, replay captures, run a "
      "switch.",
      "ofswitch");
  app.require_subcommand(1);
  app.failure_message([](const CLI::App*, const CLI::Error& error) {
    return fmt::format("ofswitch: {}\n", error.what());
  });
  int status = 0;
  ofswitch::addCheckCommand(&app, &status);
  ofswitch::addReplayCommand(&app, &status);
  ofswitch::addRunCommand(&app, &status);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error);
  } catch (const std::exception& error) {
    fmt::print(stderr, "ofswitch: {}\n", error.what());
    return 1;
  }
  return status;
}
