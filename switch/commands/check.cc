// SPDX-License-Identifier: BSD-3-Clause
//
// ofswitch check: would these flow files be taken? Reads and translates them
// as "replay" does. Runs nothing, unless asked to build the tables.
#include <fmt/core.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "switch/commands/commands.h"
#include "switch/commands/table_options.h"
#include "switch/flow/command_list.h"
#include "switch/flow/flow_printer.h"
#include "switch/flow/flow_reader.h"
#include "switch/flow/translator.h"
#include "switch/replay/build_check.h"
#include "switch/replay/module_path.h"
#include "switch/replay/policy.h"
#include "switch/terminal/amounts.h"
#include "switch/terminal/progress.h"
#include "switch/terminal/standard_error.h"

namespace ofswitch {
namespace {

struct CheckOptions {
  std::vector<std::string> files;
  std::vector<uint16_t> ports;
  bool json = false;
  bool verbose = false;
  bool build = false;
  BuildCheckOptions builds;
};

struct CheckResult {
  size_t flows = 0;     // lines accepted
  size_t commands = 0;  // JSON commands accepted
  bool hasCommandList = false;
  std::vector<Diagnostic> refusals;
  std::vector<Diagnostic> notes;
  std::vector<TableBuild> builds;
};

template <class T>
void append(std::vector<T> from, std::vector<T>* to) {
  std::ranges::move(from, std::back_inserter(*to));
}

// Reads every file, so that one run shows every refusal.
CheckResult readAll(const std::vector<std::string>& paths,
                    std::vector<Flow>* flows, IdAllocator* ids) {
  CheckResult result;
  CommandListReader commands;
  for (const std::string& path : paths) {
    if (path.ends_with(".json")) {
      CommandList list = commands.read(path);
      reserveIds(list, ids);
      result.hasCommandList = true;
      result.commands += list.commands.size();
      append(std::move(list.refusals), &result.refusals);
    } else {
      Progress progress("reading " + path);
      FlowFile file =
          FlowReader({.progress = [&progress](uint64_t done, uint64_t total) {
            progress.show(done, total);
          }}).read(path);
      append(std::move(file.flows), flows);
      append(std::move(file.refusals), &result.refusals);
    }
  }
  return result;
}

const char* familyName(quil::pb::OpenFlowType family) {
  return family == quil::pb::OPENFLOW_TYPE_IPV6 ? "ipv6" : "ipv4";
}

void printFlow(const InstalledFlow& installed) {
  const Flow& flow = installed.flow;
  if (installed.isTableMiss) {
    fmt::print("table {}: has no flow, everything that enters it is dropped\n",
               flow.table);
    return;
  }
  fmt::print("{}:{}: {} priority {}: {}\n", flow.file, flow.line,
             familyName(installed.rule.family), installed.rule.priority,
             flowText(flow));
  for (const InstalledRule& guard : installed.guards) {
    fmt::print("{}:{}: {} priority {}: guard: {},actions=drop\n", flow.file,
               flow.line, familyName(guard.family), guard.priority,
               matchText(guard.match));
  }
}

nlohmann::json toJson(const std::vector<Diagnostic>& diagnostics) {
  nlohmann::json array = nlohmann::json::array();
  for (const Diagnostic& one : diagnostics) {
    array.push_back(
        {{"file", one.file}, {"line", one.line}, {"reason", one.reason}});
    if (one.column != 0) array.back()["column"] = one.column;
  }
  return array;
}

nlohmann::json toJson(const InstalledFlow& installed) {
  nlohmann::json guards = nlohmann::json::array();
  for (const InstalledRule& guard : installed.guards) {
    guards.push_back({{"family", familyName(guard.family)},
                      {"modulePriority", guard.priority},
                      {"match", matchText(guard.match)}});
  }
  return {{"file", installed.flow.file},
          {"line", installed.flow.line},
          {"flow", flowText(installed.flow)},
          {"family", familyName(installed.rule.family)},
          {"modulePriority", installed.rule.priority},
          {"tableMiss", installed.isTableMiss},
          {"guards", guards}};
}

void printBuild(const TableBuild& build) {
  if (!build.failure.empty()) {
    printError("{}\n", build.failure);
    return;
  }
  fmt::print("table {} {}: {} flow{}", build.table,
             build.ipv6 ? "IPv6" : "IPv4", build.flows,
             build.flows == 1 ? "" : "s");
  if (build.flows > 0) {
    fmt::print(", built in {:.1f} ms with {}, keeps {}, {:.0f} cycles a packet",
               build.milliseconds, sizeText(build.buildBytes),
               sizeText(build.keptBytes), build.cyclesPerPacket);
  }
  fmt::print("\n");
}

nlohmann::json toJson(const TableBuild& build) {
  nlohmann::json json = {{"table", build.table},
                         {"family", build.ipv6 ? "ipv6" : "ipv4"},
                         {"flows", build.flows},
                         {"builds", build.failure.empty()},
                         {"milliseconds", build.milliseconds},
                         {"buildBytes", build.buildBytes},
                         {"keptBytes", build.keptBytes}};
  if (build.failure.empty()) {
    json["cyclesPerPacket"] = build.cyclesPerPacket;
  } else {
    json["failure"] = build.failure;
  }
  return json;
}

void printJson(const CheckResult& result, const FlowTranslator& translator,
               bool verbose) {
  nlohmann::json report = {{"flows", result.flows},
                           {"commands", result.commands},
                           {"refused", result.refusals.size()},
                           {"refusals", toJson(result.refusals)},
                           {"notes", toJson(result.notes)}};
  if (!result.builds.empty()) {
    report["tables"] = nlohmann::json::array();
    for (const TableBuild& build : result.builds) {
      report["tables"].push_back(toJson(build));
    }
  }
  if (verbose) {
    report["installed"] = nlohmann::json::array();
    for (const InstalledFlow* flow : translator.installed()) {
      report["installed"].push_back(toJson(*flow));
    }
  }
  // File names and flow lines may be any bytes.
  fmt::print("{}\n", report.dump(2, ' ', false,
                                 nlohmann::json::error_handler_t::replace));
}

void printText(const CheckResult& result, const FlowTranslator& translator,
               bool verbose) {
  for (const Diagnostic& refusal : result.refusals) {
    printError("{}\n", refusal.text());
  }
  for (const Diagnostic& note : result.notes) {
    printError("{}\n", note.noteText());
  }
  if (verbose) {
    for (const InstalledFlow* flow : translator.installed()) printFlow(*flow);
  }
  if (result.commands != 0) {
    fmt::print("{} and {} accepted, {} refused\n", plural(result.flows, "flow"),
               plural(result.commands, "command"), result.refusals.size());
  } else {
    fmt::print("{} accepted, {} refused\n", plural(result.flows, "flow"),
               result.refusals.size());
  }
  for (const TableBuild& build : result.builds) printBuild(build);
}

std::vector<TableBuild> buildTables(const CheckOptions& options) {
  BuildCheckOptions builds = options.builds;
  builds.modulePath = findModule(builds.modulePath);
  return checkBuilds(loadPolicy(options.files, {}, options.ports), builds);
}

bool allBuild(const std::vector<TableBuild>& builds) {
  return std::ranges::all_of(
      builds, [](const TableBuild& build) { return build.failure.empty(); });
}

int check(const CheckOptions& options) {
  IdAllocator ids;
  std::vector<Flow> flows;
  CheckResult result = readAll(options.files, &flows, &ids);
  SwitchPorts ports = options.ports;
  std::ranges::sort(ports);
  if (ports.empty()) ports = portsNamedBy(flows);

  FlowTranslator translator(std::move(ports), &ids);
  // Command lists without flows get nothing added, no flows for empty tables
  // either.
  Translation translation;
  if (!flows.empty() || !result.hasCommandList) {
    translation = translator.add(flows);
  }
  result.flows = flows.size() - translation.refusals.size();
  append(std::move(translation.refusals), &result.refusals);
  append(std::move(translation.notes), &result.notes);

  if (options.build && result.refusals.empty()) {
    result.builds = buildTables(options);
  }

  if (options.json) {
    printJson(result, translator, options.verbose);
  } else {
    printText(result, translator, options.verbose);
  }
  return result.refusals.empty() && allBuild(result.builds) ? 0 : 1;
}

}  // namespace

void addCheckCommand(CLI::App* app, int* status) {
  CLI::App* command = app->add_subcommand(
      "check",
      "Read flow files as replay would, and tell what would be refused");
  command->footer(
      "Refused lines go to standard error with the reason. The exit status is "
      "0 when every line is accepted and, with --build, every table can be "
      "built.");
  auto options = std::make_shared<CheckOptions>();
  command->add_option("FLOWS", options->files, kFlowFilesHelp)
      ->type_name("FILE")
      ->required();
  addPortsOption(command, &options->ports,
                 "The switch's ports, which all and flood reach (default: "
                 "every port that a flow names)");
  command->add_flag("--json", options->json, "Print the result as JSON");
  command->add_flag("-v,--verbose", options->verbose,
                    "Also print each flow in normal form, with the module's "
                    "family and priority");
  command->add_flag("--build", options->build,
                    "Also build the tables as the switch does, and tell how "
                    "long it takes, how much memory, and what a lookup costs");
  addMemoryOptions(command, "flows and classifiers", &options->builds.memoryMb,
                   &options->builds.buildMb);
  addModuleOption(command, &options->builds.modulePath);
  command->callback([options, status] { *status = check(*options); });
}

}  // namespace ofswitch
