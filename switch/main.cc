// SPDX-License-Identifier: BSD-3-Clause
#include <fmt/core.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <system_error>
#include <vector>

#include "switch/commands/commands.h"
#include "switch/terminal/standard_error.h"

namespace {

constexpr int kFailed = 1;
constexpr int kWrongUse = 2;

// A reader that has gone away has seen enough and wants no message.
int failedOutput(int error) {
  if (error != EPIPE) {
    ofswitch::printError("ofswitch: standard output: {}\n",
                         std::strerror(error));
  }
  return kFailed;
}

// What is printed may still wait in the buffer, and a full disk be found out
// only here.
int finishOutput(int status) {
  const bool isOut = std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
  return isOut ? status : failedOutput(errno);
}

// A word where a command should be, which CLI11 reports as a missing one.
std::string unknownCommand(const CLI::App& app) {
  const CLI::App* command = &app;
  std::string path = app.get_name();
  while (!command->get_subcommands().empty()) {
    command = command->get_subcommands().front();
    path += " " + command->get_name();
  }
  const std::vector<std::string> left = command->remaining();
  if (command->get_require_subcommand_min() == 0 || left.empty() ||
      left.front().starts_with('-')) {
    return {};
  }
  return fmt::format("{}: unknown command \"{}\", see {} --help\n", path,
                     left.front(), path);
}

int exitStatus(const CLI::App& app, const CLI::ParseError& error) {
  if (error.get_exit_code() != 0) {
    const std::string unknown = unknownCommand(app);
    if (!unknown.empty()) {
      ofswitch::printError("{}", unknown);
      return kWrongUse;
    }
  }
  return app.exit(error) == 0 ? finishOutput(0) : kWrongUse;
}

}  // namespace

int main(int argc, char** argv) {
  ofswitch::fillStandardStreams();
  CLI::App app(
      "Packets through OpenFlow tables: check flows, replay captures, run a "
      "switch.",
      "ofswitch");
  app.set_version_flag("--version", "ofswitch " OFSWITCH_VERSION);
  app.require_subcommand(1);
  app.failure_message([](const CLI::App*, const CLI::Error& error) {
    return fmt::format("ofswitch: {}\n", error.what());
  });
  int status = 0;
  ofswitch::addCheckCommand(&app, &status);
  ofswitch::addDoctorCommand(&app, &status);
  ofswitch::addReplayCommand(&app, &status);
  ofswitch::addRunCommand(&app, &status);
  ofswitch::addFlowsCommand(&app, &status);
  ofswitch::addTablesCommand(&app, &status);
  ofswitch::addPortsCommand(&app, &status);
  ofswitch::addStatsCommand(&app, &status);
  ofswitch::addLogCommand(&app, &status);
  ofswitch::addTraceCommand(&app, &status);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return exitStatus(app, error);
  } catch (const std::system_error& error) {
    if (std::ferror(stdout) != 0) return failedOutput(error.code().value());
    ofswitch::printError("ofswitch: {}\n", error.what());
    return kFailed;
  } catch (const std::exception& error) {
    ofswitch::printError("ofswitch: {}\n", error.what());
    return kFailed;
  }
  return finishOutput(status);
}
