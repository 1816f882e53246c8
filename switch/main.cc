// SPDX-License-Identifier: BSD-3-Clause
#include <fmt/core.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
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
  if (std::fflush(stdout) != 0) return failedOutput(errno);
  if (std::ferror(stdout) == 0) return status;
  // The C library drops what it could not write, and remembers no more.
  ofswitch::printError(
      "ofswitch: standard output: some of it could not be written\n");
  return kFailed;
}

// A command as it was typed, "ofswitch flows add", and what it has no use for.
struct Typed {
  const CLI::App* command;
  std::string path;
  std::vector<std::string> left;
};

// The innermost command, or one around it that was given too much.
Typed whatWasTyped(const CLI::App& app) {
  Typed typed = {&app, app.get_name(), app.remaining()};
  while (typed.left.empty() && !typed.command->get_subcommands().empty()) {
    typed.command = typed.command->get_subcommands().front();
    typed.path += " " + typed.command->get_name();
    typed.left = typed.command->remaining();
  }
  return typed;
}

std::string unknownWord(const Typed& typed) {
  const std::string& word = typed.left.front();
  std::string help = fmt::format(", see {} --help", typed.path);
  std::vector<std::string> names;
  const char* kind = "command";
  if (word.starts_with('-')) {
    kind = "option";
    for (const CLI::Option* option : typed.command->get_options()) {
      names.push_back(option->get_name());
    }
    if (!typed.command->get_subcommands().empty()) {
      help = "; options stand behind the command";
    }
  } else if (typed.command->get_require_subcommand_min() == 0) {
    kind = "argument";
  } else {
    for (const CLI::App* one : typed.command->get_subcommands({})) {
      names.push_back(one->get_name());
    }
  }
  const std::string meant = ofswitch::suggest(
      word, std::vector<std::string_view>(names.begin(), names.end()));
  return fmt::format("{}: unknown {} \"{}\"{}\n", typed.path, kind, word,
                     meant.empty() ? help : meant);
}

// CLI11 says that something is missing also where a mistyped word stands in its
// place, and not which command has no use for a word. Empty where it says
// enough.
std::string textOf(const CLI::App& app, const CLI::ParseError& error) {
  const bool isMissing =
      dynamic_cast<const CLI::RequiredError*>(&error) != nullptr;
  const bool isExtra = dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr;
  if (!isMissing && !isExtra) return {};
  const Typed typed = whatWasTyped(app);
  if (!typed.left.empty()) return unknownWord(typed);
  if (typed.command->get_require_subcommand_min() == 0) return {};
  return fmt::format("{0}: say a command, see {0} --help\n", typed.path);
}

int exitStatus(const CLI::App& app, const CLI::ParseError& error) {
  if (const std::string text = textOf(app, error); !text.empty()) {
    ofswitch::printError("{}", text);
    return kWrongUse;
  }
  return app.exit(error) == 0 ? finishOutput(0) : kWrongUse;
}

std::string textOf(const std::system_error& error) {
  if (error.code() == std::errc::too_many_files_open) {
    return fmt::format(
        "{}; allow more of them (ulimit -n, LimitNOFILE of a service)",
        error.what());
  }
  if (error.code() != std::errc::resource_unavailable_try_again) {
    return error.what();
  }
  // It is how std::thread fails, and nothing else that is used here.
  return fmt::format(
      "cannot start a thread: {}; there may be too many of them (ulimit -u, "
      "TasksMax of a service), or their stacks be too large (ulimit -s)",
      error.what());
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
    ofswitch::printError("ofswitch: {}\n", textOf(error));
    return kFailed;
  } catch (const std::bad_alloc&) {
    std::fputs(
        "ofswitch: out of memory: this takes more than the machine has left, "
        "or than ulimit -v allows\n",
        stderr);
    return kFailed;
  } catch (const std::exception& error) {
    ofswitch::printError("ofswitch: {}\n", error.what());
    return kFailed;
  }
  return finishOutput(status);
}
