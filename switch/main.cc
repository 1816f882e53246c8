// SPDX-License-Identifier: BSD-3-Clause
#include <fmt/core.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "switch/commands/commands.h"
#include "switch/flow/suggest.h"
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

// CLI11 says only that a command is missing, also where there is a word in its
// place.
std::string commandError(const CLI::App& app) {
  const CLI::App* command = &app;
  std::string path = app.get_name();
  while (!command->get_subcommands().empty()) {
    command = command->get_subcommands().front();
    path += " " + command->get_name();
  }
  if (command->get_require_subcommand_min() == 0) return {};
  const std::string help = fmt::format(", see {} --help", path);
  const std::vector<std::string> left = command->remaining();
  if (left.empty()) return fmt::format("{}: say a command{}\n", path, help);
  const std::string& word = left.front();
  if (word.starts_with('-')) {
    return fmt::format("{}: unknown option \"{}\"{}\n", path, word, help);
  }
  std::vector<std::string_view> names;
  for (const CLI::App* one : command->get_subcommands({})) {
    names.push_back(one->get_name());
  }
  const std::string meant = ofswitch::suggest(word, names);
  return fmt::format("{}: unknown command \"{}\"{}\n", path, word,
                     meant.empty() ? help : meant);
}

int exitStatus(const CLI::App& app, const CLI::ParseError& error) {
  if (dynamic_cast<const CLI::RequiredError*>(&error) != nullptr) {
    const std::string text = commandError(app);
    if (!text.empty()) {
      ofswitch::printError("{}", text);
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
