// SPDX-License-Identifier: BSD-3-Clause
#include <fmt/core.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
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
  ofswitch::addDoctorCommand(&app, &status);
  ofswitch::addReplayCommand(&app, &status);
  ofswitch::addRunCommand(&app, &status);
  ofswitch::addTraceCommand(&app, &status);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (argc > 1 && argv[1][0] != '-' && app.get_subcommands().empty()) {
      fmt::print(stderr,
                 "ofswitch: unknown command \"{}\", see ofswitch --help\n",
                 argv[1]);
      return error.get_exit_code() == 0 ? 1 : error.get_exit_code();
    }
    return app.exit(error);
  } catch (const std::exception& error) {
    fmt::print(stderr, "ofswitch: {}\n", error.what());
    return 1;
  }
  // What is printed may still wait in the buffer, and a full disk be found out
  // only here.
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
    fmt::print(stderr, "ofswitch: standard output: {}\n", std::strerror(errno));
    return 1;
  }
  return status;
}
