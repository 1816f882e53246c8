// SPDX-License-Identifier: BSD-3-Clause
//
// ofswitch replay: captures through the tables.
#include <fmt/core.h>
#include <stdlib.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "modules/capture_reader.h"
#include "modules/capture_sink.h"
#include "switch/commands/commands.h"
#include "switch/commands/table_options.h"
#include "switch/flow/flow.h"
#include "switch/replay/account.h"
#include "switch/replay/module_path.h"
#include "switch/replay/policy.h"
#include "switch/replay/report.h"
#include "switch/replay/session.h"
#include "switch/terminal/standard_error.h"

namespace ofswitch {
namespace {

namespace fs = std::filesystem;

struct ReplayOptions {
  std::vector<std::string> flows;
  std::vector<std::string> inputs;  // PORT=FILE
  std::vector<uint16_t> ports;
  std::string statsFile;
  bool json = false;
  SessionOptions session;
};

// Errors are gathered, so that one run shows all that is wrong with what it was
// given.
class Errors {
 public:
  void add(const std::string& error) {
    printError("{}\n", error);
    any_ = true;
  }
  bool any() const { return any_; }

 private:
  bool any_ = false;
};

// Of "PORT=FILE". Throws what CLI11 makes an error of the option of.
ReplayInput parseInput(const std::string& text) {
  const size_t equals = text.find('=');
  if (equals == std::string::npos || equals + 1 == text.size()) {
    throw CLI::ValidationError(fmt::format("{}: must be PORT=FILE", text));
  }
  unsigned port = 0;
  const char* end = text.data() + equals;
  const auto [stop, error] = std::from_chars(text.data(), end, port);
  if (error != std::errc() || stop != end || port < 1 || port > kMaxPort) {
    throw CLI::ValidationError(
        fmt::format("{}: port must be 1 to {}", text, kMaxPort));
  }
  return {static_cast<uint16_t>(port), text.substr(equals + 1)};
}

// A validator of CLI11's: answers what is wrong with the argument.
std::string inputError(const std::string& text) {
  try {
    parseInput(text);
    return "";
  } catch (const CLI::ValidationError& error) {
    return error.what();
  }
}

// A pipe gives its bytes once: to the one who replays them.
void checkInput(const std::string& path, int workers) {
  std::error_code ignored;
  if (!fs::is_fifo(path, ignored)) {
    bess::CaptureReader check(path);
  } else if (workers > 1) {
    throw std::runtime_error(fmt::format(
        "{}: is a pipe, which only one worker can read; leave out --workers",
        path));
  }
}

void readInputs(ReplayOptions* options, Errors* errors) {
  for (const std::string& text : options->inputs) {
    try {
      const ReplayInput input = parseInput(text);
      checkInput(input.path, options->session.workers);
      options->session.inputs.push_back(input);
    } catch (const std::runtime_error& error) {
      errors->add(error.what());
    }
  }
}

// Tries it out: permissions alone do not tell what a full or read-only file
// system will take.
void checkOutDir(const std::string& dir, Errors* errors) {
  std::error_code error;
  fs::create_directories(dir, error);
  if (error) {
    errors->add(fmt::format("--out-dir {}: {}", dir, error.message()));
    return;
  }
  std::string probe = fs::path(dir) / "probe-XXXXXX";
  const int fd = mkstemp(probe.data());
  if (fd < 0) {
    errors->add(fmt::format("--out-dir {}: {}", dir, strerror(errno)));
    return;
  }
  close(fd);
  unlink(probe.c_str());
}

// Opens it without changing it, because it is written when all work is done.
void checkStats(const std::string& file, Errors* errors) {
  const bool isThere = fs::exists(file);
  if (!std::ofstream(file, std::ios::app)) {
    errors->add(fmt::format("{}: {}", file, strerror(errno)));
  } else if (!isThere) {
    unlink(file.c_str());
  }
}

// Outputs replace files of earlier runs, but never what this run reads.
void checkOverwrites(const ReplayOptions& options, const Policy& policy,
                     Errors* errors) {
  std::vector<std::string> outputs;
  if (!options.statsFile.empty()) {
    outputs.push_back(options.statsFile);
  }
  if (!options.session.outDir.empty()) {
    std::vector<uint16_t> ports = policy.ports;
    ports.push_back(0);
    for (const uint16_t port : ports) {
      const std::string file = outputFile(options.session.outDir, port);
      for (const std::string& name : {file, CaptureSink::PartOf(file)}) {
        if (fs::is_directory(name)) {
          errors->add(fmt::format("{}: is a directory", name));
        }
        outputs.push_back(name);
      }
    }
  }
  std::vector<std::string> read = options.flows;
  for (const ReplayInput& input : options.session.inputs) {
    read.push_back(input.path);
  }
  for (const std::string& output : outputs) {
    for (const std::string& input : read) {
      std::error_code ignored;
      if (fs::equivalent(output, input, ignored)) {
        errors->add(
            fmt::format("{}: is read, and would be overwritten", output));
      }
    }
  }
}

Policy readPolicy(const ReplayOptions& options, Errors* errors) {
  std::vector<uint16_t> inputPorts;
  for (const ReplayInput& input : options.session.inputs) {
    inputPorts.push_back(input.port);
  }
  Policy policy = loadPolicy(options.flows, inputPorts, options.ports);
  for (const Diagnostic& refusal : policy.refusals) {
    errors->add(refusal.text());
  }
  for (const Diagnostic& note : policy.notes) {
    printError("{}\n", note.noteText());
  }
  return policy;
}

void writeStats(const std::string& file, const std::string& report,
                Errors* errors) {
  std::ofstream stats(file);
  stats << report;
  if (!stats.flush()) {
    errors->add(fmt::format("{}: {}", file, strerror(errno)));
  }
}

int replay(ReplayOptions options) {
  Errors errors;
  readInputs(&options, &errors);
  const Policy policy = readPolicy(options, &errors);
  if (!options.session.outDir.empty()) {
    checkOutDir(options.session.outDir, &errors);
  }
  if (!options.statsFile.empty()) checkStats(options.statsFile, &errors);
  checkOverwrites(options, policy, &errors);
  try {
    options.session.modulePath = findModule(options.session.modulePath);
  } catch (const std::runtime_error& error) {
    errors.add(error.what());
  }
  if (errors.any()) {
    return 1;
  }

  const SessionResult result = runSession(policy, options.session);
  const Account account = makeAccount(result.counts);
  const std::string json = jsonReport(policy, result.counts, account);
  fmt::print("{}",
             options.json ? json : textReport(policy, result.counts, account));
  if (!options.statsFile.empty()) {
    writeStats(options.statsFile, json, &errors);
  }
  for (const std::string& warning : result.warnings) {
    printError("{}\n", warning);
  }
  for (const std::string& error : result.errors) {
    errors.add(error);
  }
  for (const std::string& discrepancy : account.discrepancies) {
    errors.add("does not add up: " + discrepancy);
  }
  return errors.any() ? 1 : 0;
}

}  // namespace

void addReplayCommand(CLI::App* app, int* status) {
  CLI::App* command = app->add_subcommand(
      "replay", "Send captures through flow tables and see what comes out");
  command->footer(
      "Example: ofswitch replay --flows flows.txt --in 1=users.pcap "
      "2=servers.pcap --out-dir out\n"
      "What leaves on port N is in DIR/port-N.pcap, what goes to the "
      "controller in DIR/controller.pcap, with the time stamps of the packets "
      "that caused it. The exit status is 0 when everything was read, written "
      "and accounted for.");
  auto options = std::make_shared<ReplayOptions>();
  command->add_option("--flows", options->flows, kFlowFilesHelp)
      ->type_name("FILE")
      ->required();
  command
      ->add_option("--in", options->inputs,
                   "Captures (pcap or pcapng) and the ports they enter by; "
                   "merged by time")
      ->type_name("PORT=FILE")
      ->check(inputError)
      ->required();
  command
      ->add_option("--out-dir", options->session.outDir,
                   "Where to write what leaves on each port")
      ->type_name("DIR");
  addPortsOption(command, &options->ports,
                 "The connected ports (default: every port that an input or a "
                 "flow names)");
  command
      ->add_option("--workers", options->session.workers,
                   "Worker threads; packets are spread over them by flow")
      ->type_name("N")
      ->check(CLI::Range(1, 16))
      ->capture_default_str();
  command
      ->add_option("--stats", options->statsFile,
                   "Also write the report there, as JSON")
      ->type_name("FILE.json");
  command->add_flag("--json", options->json, "Print the report as JSON");
  addModuleOption(command, &options->session.modulePath);
  addMemoryOptions(command, "packets, flows and classifiers",
                   &options->session.memoryMb, &options->session.buildMb);
  command->callback([options, status] { *status = replay(*options); });
}

}  // namespace ofswitch
