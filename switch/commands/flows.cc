// SPDX-License-Identifier: BSD-3-Clause
//
// ofswitch flows: the flows of a running switch.
#include <fmt/core.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <system_error>
#include <vector>

#include "switch/client/change_call.h"
#include "switch/client/flow_listing.h"
#include "switch/client/flow_sources.h"
#include "switch/client/message_json.h"
#include "switch/client/switch_client.h"
#include "switch/commands/client_options.h"
#include "switch/commands/commands.h"
#include "switch/control/message_codec.h"
#include "switch/terminal/amounts.h"
#include "switch/terminal/standard_error.h"

namespace ofswitch {
namespace {

struct FlowOptions : ClientOptions {
  std::vector<std::string> arguments;
  std::vector<std::string> files;
  bool strict = false;
  bool all = false;
  bool builtIn = false;
  bool noStats = false;
  bool resetCounts = false;
  bool verbose = false;
};

FlowSources readSources(const FlowOptions& options, const char* what) {
  FlowSources sources(what);
  for (const std::string& argument : options.arguments) {
    sources.addArgument(argument);
  }
  for (const std::string& file : options.files) sources.addFile(file);
  return sources;
}

// Diagnostics of the reply where the lines of the request came from.
void replaceLines(const FlowSources& sources,
                  google::protobuf::RepeatedPtrField<pb::Diagnostic>* all) {
  for (pb::Diagnostic& one : *all) {
    const Diagnostic placed = sources.place(one);
    one.set_name(placed.file);
    one.set_line(static_cast<uint32_t>(placed.line));
  }
}

Diagnostic diagnosticOf(const pb::Diagnostic& message) {
  return {message.name(), static_cast<int>(message.line()), message.reason()};
}

// Not all, lest those of a file of another kind fill the terminal.
void printRefusals(const pb::FlowChangeReply& reply) {
  constexpr int kShown = 20;
  const int count = reply.refusals_size();
  const int shown = count > kShown + 1 ? kShown : count;
  for (int i = 0; i < shown; i++) {
    printError("{}\n", diagnosticOf(reply.refusals(i)).text());
  }
  if (shown < count) {
    printError("and {} more, which --json lists\n", count - shown);
  }
}

void printReply(const pb::FlowChangeReply& reply, bool verbose) {
  printRefusals(reply);
  for (const pb::Diagnostic& note : reply.notes()) {
    printError("{}\n", diagnosticOf(note).noteText());
  }
  if (reply.applied()) {
    fmt::print("{}", changeText(reply, verbose));
  } else if (reply.failure().empty()) {
    printError("ofswitch: nothing was changed: {} refused\n",
               plural(static_cast<uint64_t>(reply.refusals_size()), "line"));
  } else {
    printError("ofswitch: nothing was changed: {}\n",
               printable(reply.failure()));
  }
}

// The switch would only say that a message was too long.
void checkLength(const pb::FlowChange& request) {
  const size_t bytes = request.ByteSizeLong();
  if (bytes > kLargeMessage.bytes) {
    throw ClientError(fmt::format(
        "flows: {} bytes of flow text, at most {} are taken at once; split "
        "the file and use \"flows add\" for each part, or look with "
        "\"ofswitch check\" whether it holds flows at all",
        bytes, kLargeMessage.bytes));
  }
}

int change(const FlowOptions& options, const FlowSources& sources,
           pb::FlowOperation operation) {
  pb::FlowChange request;
  request.set_operation(operation);
  request.set_strict(options.strict);
  request.set_reset_counts(options.resetCounts);
  sources.fill(&request);
  checkLength(request);
  SwitchClient client(options.door);
  pb::FlowChangeReply reply = changeFlows(&client, std::move(request));
  replaceLines(sources, reply.mutable_refusals());
  replaceLines(sources, reply.mutable_notes());
  if (options.json) {
    fmt::print("{}\n", jsonText(messageJson(reply)));
  } else {
    printReply(reply, options.verbose);
  }
  return reply.applied() ? 0 : 1;
}

// A flow has actions=, so that what has no "=" and is a file was meant as one.
void checkForFiles(const std::vector<std::string>& flows) {
  for (const std::string& flow : flows) {
    std::error_code ignored;
    if (flow.find('=') == std::string::npos &&
        std::filesystem::exists(flow, ignored)) {
      throw CLI::ValidationError(
          "flows add",
          fmt::format("{} is a file, no flow; say --file {}", flow, flow));
    }
  }
}

int addFlows(const FlowOptions& options) {
  if (options.arguments.empty() && options.files.empty()) {
    throw CLI::ValidationError("flows add", "say FLOW, or --file FILE");
  }
  checkForFiles(options.arguments);
  const FlowSources sources = readSources(options, "flow");
  if (sources.empty()) throw ClientError("flows add: there is no flow to add");
  return change(options, sources, pb::FLOW_OPERATION_ADD);
}

int deleteFlows(const FlowOptions& options) {
  const bool any = !options.arguments.empty() || !options.files.empty();
  if (options.all && any) {
    throw CLI::ValidationError("flows del", "--all goes without a filter");
  }
  if (!options.all && !any) {
    throw CLI::ValidationError(
        "flows del", "say which: FILTER, --file FILE, or --all for every flow");
  }
  const FlowSources sources = readSources(options, "filter");
  if (any && sources.selectsAll()) {
    throw ClientError(
        "flows del: an empty filter selects every flow; say --all if that is "
        "meant");
  }
  return change(options, sources, pb::FLOW_OPERATION_DELETE);
}

int replaceFlows(const FlowOptions& options) {
  const FlowSources sources = readSources(options, "flow");
  if (sources.empty()) {
    throw ClientError(
        "flows replace: there is no flow, so that every flow would go; say "
        "flows del --all if that is meant");
  }
  return change(options, sources, pb::FLOW_OPERATION_REPLACE);
}

int dump(const FlowOptions& options) {
  pb::FlowFilter filter;
  std::string text;
  for (const std::string& argument : options.arguments) {
    text += (text.empty() ? "" : ",") + argument;
  }
  filter.set_text(text);
  filter.set_strict(options.strict);
  filter.set_with_built_in(options.builtIn);
  filter.set_no_stats(options.noStats);
  SwitchClient client(options.door);
  printFlows(&client, filter, options.json);
  return 0;
}

// A sub-command of "flows" with the options that all of them have.
CLI::App* addOperation(CLI::App* flows, const char* name, const char* about,
                       const char* footer,
                       const std::shared_ptr<FlowOptions>& options, int* status,
                       const std::function<int(const FlowOptions&)>& run) {
  CLI::App* command = flows->add_subcommand(name, about);
  command->footer(footer);
  addClientOptions(command, options.get(), "Print the answer as JSON");
  command->callback([options, status, run] { *status = run(*options); });
  return command;
}

CLI::Option* addFiles(CLI::App* command,
                      const std::shared_ptr<FlowOptions>& options,
                      const char* about) {
  return command->add_option("-f,--file", options->files, about)
      ->type_name("FILE")
      ->allow_extra_args(false);
}

void addChangeFlags(CLI::App* command,
                    const std::shared_ptr<FlowOptions>& options) {
  command->add_flag("-v,--verbose", options->verbose,
                    "Also tell of each classifier build");
}

void addResetCounts(CLI::App* command,
                    const std::shared_ptr<FlowOptions>& options) {
  command->add_flag("--reset-counts", options->resetCounts,
                    "A flow that takes the place of another one counts anew");
}

}  // namespace

void addFlowsCommand(CLI::App* app, int* status) {
  CLI::App* flows = app->add_subcommand(
      "flows", "Add, delete, replace and list the flows of a running switch");
  flows->require_subcommand(1);
  flows->footer(
      "All changes of one command are made, or none. When it returns, packets "
      "meet the new flows. The exit status is 0 when they were made.");

  auto options = std::make_shared<FlowOptions>();
  CLI::App* add = addOperation(
      flows, "add", "Add flows, or change the actions of those there are",
      "Examples:\n"
      "  ofswitch flows add table=0,priority=10,in_port=1,actions=output:2\n"
      "  ofswitch flows add --file flows.txt\n"
      "  ofswitch flows dump table=3 | sed s/table=3/table=4/ | ofswitch flows "
      "add -",
      options, status, addFlows);
  add->add_option("FLOW", options->arguments,
                  "Flows in the syntax of flow files; - reads standard input");
  addFiles(add, options, "A file with a flow a line; - is standard input");
  addResetCounts(add, options);
  addChangeFlags(add, options);

  options = std::make_shared<FlowOptions>();
  CLI::App* del = addOperation(
      flows, "del", "Delete the flows that a filter selects",
      "A filter selects every flow whose match is as narrow as its own or "
      "narrower; table, cookie=VALUE/MASK and out_port=PORT narrow it down. "
      "One that selects nothing is no error.\n"
      "Examples:\n"
      "  ofswitch flows del table=3,tcp,nw_dst=10.0.0.0/8\n"
      "  ofswitch flows del --strict table=0,priority=10,in_port=1\n"
      "  ofswitch flows del --all",
      options, status, deleteFlows);
  del->add_option("FILTER", options->arguments,
                  "Filters; - reads standard input");
  addFiles(del, options, "A file with a filter a line; - is standard input");
  CLI::Option* strict =
      del->add_flag("--strict", options->strict,
                    "Only flows of exactly the filter's match and priority");
  del->add_flag("--all", options->all, "Every flow")->excludes(strict);
  addChangeFlags(del, options);

  options = std::make_shared<FlowOptions>();
  CLI::App* replace = addOperation(
      flows, "replace", "Make the flows of a file all flows there are",
      "Flows that are in force already stay as they are and keep their "
      "counts.\n"
      "Examples:\n"
      "  ofswitch flows replace flows.txt\n"
      "  ofswitch flows dump --no-stats > saved.txt",
      options, status, replaceFlows);
  replace
      ->add_option("FILE", options->files,
                   "Files with a flow a line; - is standard input")
      ->required();
  addResetCounts(replace, options);
  addChangeFlags(replace, options);

  options = std::make_shared<FlowOptions>();
  CLI::App* list = addOperation(
      flows, "dump", "List flows as flows add takes them",
      "Flows come by table, then from high to low priority. What is printed "
      "of their past is ignored when they are added again.\n"
      "Examples:\n"
      "  ofswitch flows dump\n"
      "  ofswitch flows dump table=3,tcp,out_port=2\n"
      "  ofswitch flows dump --no-stats > saved.txt\n"
      "  ofswitch flows dump --json | jq '.[] | select(.nPackets == 0).flow'",
      options, status, dump);
  list->add_option("FILTER", options->arguments,
                   "Only flows that it selects; see ofswitch flows del");
  list->add_flag("--strict", options->strict,
                 "Only flows of exactly the filter's match and priority");
  list->add_flag("--no-stats", options->noStats,
                 "Leave out duration, counts and age");
  list->add_flag("--built-in", options->builtIn,
                 "Also the flows that the switch adds itself");
}

}  // namespace ofswitch
