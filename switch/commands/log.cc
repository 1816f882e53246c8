// SPDX-License-Identifier: BSD-3-Clause
//
// ofswitch log: the trace log of a running switch.
#include <fmt/core.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "switch/client/message_json.h"
#include "switch/client/reports.h"
#include "switch/client/switch_client.h"
#include "switch/commands/client_options.h"
#include "switch/commands/commands.h"
#include "switch/live/log_levels.h"
#include "switch/terminal/interruption.h"
#include "switch/terminal/standard_error.h"
#include "switch/terminal/standard_output.h"

namespace ofswitch {
namespace {

struct LogOptions : ClientOptions {
  bool follow = false;
  uint32_t level = kMaxLogLevel;
  std::string facility;
  uint32_t last = 0;
};

struct LevelsOptions : ClientOptions {
  std::vector<std::string> levels;  // FACILITY=LEVEL
};

void print(const pb::LogEntry& entry, bool json) {
  if (json) {
    fmt::print("{}\n", jsonLine(messageJson(entry)));
  } else {
    fmt::print("{}", logLine(entry));
  }
}

int readLog(const LogOptions& options) {
  pb::LogRequest request;
  request.set_follow(options.follow);
  request.set_max_level(options.level);
  request.set_facility(options.facility);
  request.set_last(options.last);

  Interruption interruption;
  SwitchClient client(options.door);
  grpc::ClientContext context;
  const auto reader = client.stub().ReadLog(&context, request);
  interruption.calls([&context] { context.TryCancel(); });
  pb::LogEntry entry;
  bool any = false;
  while (reader->Read(&entry)) {
    any = true;
    print(entry, options.json);
    if (options.follow) flushOutput();
  }
  const grpc::Status status = reader->Finish();
  interruption.calls(nullptr);
  if (!interruption.happened()) client.check(status);
  if (!any && !options.facility.empty() && !options.follow) {
    printError(
        "note: no entry of \"{}\"; \"ofswitch log levels\" tells who logs\n",
        options.facility);
  }
  return 0;
}

// The levels up to `level` as a mask; "none" is none of them.
uint32_t levelMask(const std::string& text, std::string_view level) {
  if (level == "none") return 0;
  uint32_t number = 0;
  const char* end = level.data() + level.size();
  const auto [stop, error] = std::from_chars(level.data(), end, number);
  if (error != std::errc() || stop != end || number > kMaxLogLevel) {
    throw CLI::ValidationError(
        "log levels",
        fmt::format("{}: a level is a number from 0 to {}, or none", text,
                    kMaxLogLevel));
  }
  return logLevelMask(number);
}

std::string levelText(uint32_t mask) {
  if (mask == 0) return "none";
  for (uint32_t level = 0; level <= kMaxLogLevel; level++) {
    if (mask == logLevelMask(level)) return std::to_string(level);
  }
  return fmt::format("mask 0x{:x}", mask);
}

int levels(const LevelsOptions& options) {
  pb::LogLevels request;
  for (const std::string& text : options.levels) {
    const size_t equals = text.find('=');
    if (equals == std::string::npos || equals == 0) {
      throw CLI::ValidationError(
          "log levels", fmt::format("{}: must be FACILITY=LEVEL", text));
    }
    (*request.mutable_levels())[text.substr(0, equals)] =
        levelMask(text, std::string_view(text).substr(equals + 1));
  }
  SwitchClient client(options.door);
  const pb::LogLevels reply =
      client.call(&SwitchClient::Stub::SetLogLevels, request);
  if (options.json) {
    fmt::print("{}\n", jsonText(messageJson(reply)["levels"]));
    return 0;
  }
  std::vector<std::string> lines;
  for (const auto& [facility, mask] : reply.levels()) {
    lines.push_back(fmt::format("{}={}\n", facility, levelText(mask)));
  }
  std::ranges::sort(lines);  // a map of messages has no order
  for (const std::string& line : lines) fmt::print("{}", line);
  return 0;
}

void addLevels(CLI::App* log, int* status) {
  CLI::App* command = log->add_subcommand(
      "levels",
      "Show or set up to which level the switch also writes its log to its "
      "standard error");
  command->footer(
      "Levels: 0 failures, 2 steps, 5 everything. The log itself always holds "
      "all of them.\n"
      "Examples:\n"
      "  ofswitch log levels\n"
      "  ofswitch log levels OpenFlow=2 Controller=none");
  auto options = std::make_shared<LevelsOptions>();
  command->add_option("FACILITY=LEVEL", options->levels,
                      "What to set; without it, nothing is set");
  addClientOptions(command, options.get(),
                   "Print an object of bit masks by facility");
  command->callback([options, status] { *status = levels(*options); });
}

}  // namespace

void addLogCommand(CLI::App* app, int* status) {
  CLI::App* command =
      app->add_subcommand("log", "The trace log of a running switch");
  command->footer(
      "The log is a ring in memory; the oldest entries go first.\n"
      "Examples:\n"
      "  ofswitch log --last 20\n"
      "  ofswitch log --follow --facility Controller\n"
      "  ofswitch log --level 0 --json | jq -r .text");
  auto options = std::make_shared<LogOptions>();
  command->add_flag("-f,--follow", options->follow,
                    "Go on with what comes, until Ctrl-C");
  command
      ->add_option("--level", options->level,
                   "Only entries up to this level: 0 failures, 2 steps, 5 "
                   "everything (default: all)")
      ->type_name("N")
      ->check(CLI::Range(0u, kMaxLogLevel));
  command
      ->add_option("--facility", options->facility,
                   fmt::format("Only entries of one: {}",
                               fmt::join(kLogFacilities, ", ")))
      ->type_name("NAME");
  command
      ->add_option("-n,--last", options->last,
                   "Only so many of the entries there are")
      ->type_name("N")
      ->check(CLI::Range(1u, std::numeric_limits<uint32_t>::max()));
  addClientOptions(command, options.get(), "Print an object a line");
  addLevels(command, status);
  command->callback([options, status, command] {
    if (command->get_subcommands().empty()) *status = readLog(*options);
  });
}

}  // namespace ofswitch
